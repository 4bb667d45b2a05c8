#pragma once

#include <memory>
#include <string>

#include "Platform/Linux/Logging/LogSinkSocket.h"
#include "Platform/Logging/LogSink.h"

namespace platform {

inline constexpr char kJournalSocket[] = "/run/systemd/journal/socket";

// Messages in the journal's native protocol, one datagram each: MESSAGE, PRIORITY,
// SYSLOG_IDENTIFIER, SYSLOG_FACILITY (3, daemon) and VANTOR_FACILITY, the named facility; where
// they are known MESSAGE_ID, VANTOR_LABEL, VANTOR_PID (of the service), CODE_FILE and CODE_LINE. A
// message that is too large for a datagram is sent as a sealed memory file.
class JournalLogSink final : public LogSink {
 public:
  // The journal need not be running yet. Fails only if the system has no descriptor left.
  static Result<std::unique_ptr<JournalLogSink>> make(std::string socketPath = kJournalSocket);

  Result<void> write(const LogRecord& record) override;

 private:
  explicit JournalLogSink(LogSinkSocket socket) : socket_(std::move(socket)) {}
  Result<void> sendAsMemoryFile(std::string_view entry) const;

  LogSinkSocket socket_;
};

}  // namespace platform
