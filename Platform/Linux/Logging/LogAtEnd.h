#pragma once

#include <memory>

#include "Platform/Linux/Logging/LogProgress.h"
#include "Platform/Logging/SystemLog.h"

namespace platform {

// While it lives, a program that calls exit(), aborts (as std::terminate() does) or crashes first
// waits until its buffered messages are written, for a second at most. Then it ends as it would
// have ended without this. At most one exists at a time.
//
// It handles SIGABRT, SIGBUS, SIGFPE, SIGILL and SIGSEGV, but for those that are handled already.
class LogAtEnd {
 public:
  // The progress of the buffer, and the messages that are announced to it. They are shared with the
  // sink, the log and the handlers, which may run at any time.
  LogAtEnd(std::shared_ptr<const LogProgress> progress,
           std::shared_ptr<const SystemLog::Announced> announced);
  LogAtEnd(const LogAtEnd&) = delete;
  LogAtEnd& operator=(const LogAtEnd&) = delete;
  ~LogAtEnd();
};

// Ends the program at once, without destructors and the functions that exit() calls: threads that
// go on may be using what these destroy. Before, it waits until the buffered messages are written,
// as a LogAtEnd does.
[[noreturn]] void endProgramNow(int status);

}  // namespace platform
