#pragma once

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Logging/LogSink.h"

namespace platform {

// Lines for people on a descriptor, by default standard error, in the form the platform's programs
// give them:
//
//   2026-01-02 03:04:05.678 IDENT[PID:THREAD] MESSAGE
//
// The time is local; facility and level are left out; the texts are escaped as in LogSinkText.h.
// Each line is one write that never waits: where the reader of a pipe does not read, it is refused.
// A line beyond 4,096 bytes, of which a pipe might take a part only, is cut there.
class StandardErrorLogSink final : public LogSink {
 public:
  // `descriptor` stays the caller's and must outlive this.
  explicit StandardErrorLogSink(int descriptor = 2);

  Result<void> write(const LogRecord& record) override;

 private:
  const int descriptor_;
  // The same file, opened anew so that it can be made not to wait: the flag of `descriptor_` is
  // shared with other processes. Empty where it can't be opened again, as a socket can't.
  const UniqueFd own_;
};

}  // namespace platform
