#pragma once

#include <memory>
#include <string>

#include "Platform/Linux/Logging/LogSinkSocket.h"
#include "Platform/Logging/LogSink.h"

namespace platform {

inline constexpr char kSyslogSocket[] = "/dev/log";

// Messages in the format of the classic system log, one datagram each, facility daemon:
//
//   <27>Jan  2 03:04:05 IDENT[PID]: (FACILITY) MESSAGE
//
// Texts are escaped as in LogSinkText.h. The named facility precedes the message because the format
// has no field for it. Blanks, colons and brackets of the ident are escaped, too, because they
// would end it.
class SyslogLogSink final : public LogSink {
 public:
  // The receiver need not be running yet. Fails only if the system has no descriptor left.
  static Result<std::unique_ptr<SyslogLogSink>> make(std::string socketPath = kSyslogSocket);

  Result<void> write(const LogRecord& record) override;

 private:
  explicit SyslogLogSink(LogSinkSocket socket) : socket_(std::move(socket)) {}

  LogSinkSocket socket_;
};

}  // namespace platform
