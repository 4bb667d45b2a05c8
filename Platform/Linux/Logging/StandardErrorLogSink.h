#pragma once

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Logging/LogSink.h"

namespace platform {

// Human-readable lines on a descriptor, by default standard error, in the format of the platform's
// programs:
//
//   2026-01-02 03:04:05.678 IDENT[PID:THREAD] MESSAGE
//
// The time is local. Facility and level are left out. Texts are escaped as in LogSinkText.h. Each
// line is one write that never blocks: if the reader of a pipe does not read, it is refused. A pipe
// might take only a part of a line of more than 4,096 bytes, so longer lines are cut.
class StandardErrorLogSink final : public LogSink {
 public:
  // The caller keeps `descriptor`, which must outlive this.
  explicit StandardErrorLogSink(int descriptor = 2);

  Result<void> write(const LogRecord& record) override;

 private:
  const int descriptor_;
  // The same file, opened again and made non-blocking, because the flag of `descriptor_` is shared
  // with other processes. Empty if it can't be opened again, for instance a socket.
  const UniqueFd own_;
};

}  // namespace platform
