#include "Platform/Linux/Processes/ChildEnd.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <csignal>

#include <sys/wait.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

std::optional<ChildEnd> waitFor(int pidfd, int options) {
  siginfo_t info{};
  // __WALL also finds children that clone() made without SIGCHLD.
  const int result = retryOnInterrupt([&] {
    return ::waitid(P_PIDFD, static_cast<id_t>(pidfd), &info, options | WEXITED | WNOHANG | __WALL);
  });
  if (result != 0 || info.si_pid == 0) return std::nullopt;
  const bool exited = info.si_code == CLD_EXITED;
  return ChildEnd{
      {exited ? ExitStatus::Kind::kExited : ExitStatus::Kind::kSignalled, info.si_status},
      info.si_code == CLD_DUMPED};
}

}  // namespace

std::optional<ChildEnd> reapIfEnded(int pidfd) { return waitFor(pidfd, 0); }

std::optional<ChildEnd> endOfChild(int pidfd) { return waitFor(pidfd, WNOWAIT); }

}  // namespace platform
