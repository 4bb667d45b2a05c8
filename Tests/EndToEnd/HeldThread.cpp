#include "Tests/EndToEnd/HeldThread.h"

#include <sys/ptrace.h>
#include <sys/wait.h>

namespace platform {

HeldThread::HeldThread(ProcessId thread) : thread_(static_cast<int>(thread)) {
  if (::ptrace(PTRACE_SEIZE, thread_, nullptr, nullptr) != 0) return;
  isHeld_ = ::ptrace(PTRACE_INTERRUPT, thread_, nullptr, nullptr) == 0 &&
            ::waitpid(thread_, nullptr, __WALL) == thread_;
}

HeldThread::~HeldThread() {
  if (isHeld_) ::ptrace(PTRACE_DETACH, thread_, nullptr, nullptr);
}

}  // namespace platform
