#pragma once

#include <memory>
#include <string>

#include "Platform/Linux/Logging/LogSinkSocket.h"
#include "Platform/Logging/LogSink.h"

namespace platform {

inline constexpr char kSyslogSocket[] = "/dev/log";

// Messages as the classic system log takes them, one datagram each, facility daemon:
//
//   <27>Jan  2 03:04:05 IDENT[PID]: (FACILITY) MESSAGE
//
// with the text escaped as in LogSinkText.h. The named facility stands before the message because
// this form has no field for it; blanks, colons and brackets of the ident are escaped too, since
// they would end it.
class SyslogLogSink final : public LogSink {
 public:
  // The receiver need not be there yet. Fails only when the system has no descriptor left.
  static Result<std::unique_ptr<SyslogLogSink>> make(std::string socketPath = kSyslogSocket);

  Result<void> write(const LogRecord& record) override;

 private:
  explicit SyslogLogSink(LogSinkSocket socket) : socket_(std::move(socket)) {}

  LogSinkSocket socket_;
};

}  // namespace platform
