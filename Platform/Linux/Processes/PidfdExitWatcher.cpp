#include "Platform/Linux/Processes/PidfdExitWatcher.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <csignal>
#include <string>
#include <utility>

#include <sys/wait.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {

namespace {

std::optional<ExitStatus> reapIfOurs(int pidfd) {
  siginfo_t info{};
  // __WALL: a child made by clone() without SIGCHLD is ours all the same.
  const int result = retryOnInterrupt([&] {
    return ::waitid(P_PIDFD, static_cast<id_t>(pidfd), &info, WEXITED | WNOHANG | __WALL);
  });
  if (result != 0 || info.si_pid == 0) return std::nullopt;
  if (info.si_code == CLD_EXITED) return ExitStatus{ExitStatus::Kind::kExited, info.si_status};
  return ExitStatus{ExitStatus::Kind::kSignalled, info.si_status};
}

// A process that can be waited for.
class PidfdWatch final : public RunLoopHandle {
 public:
  static Result<std::unique_ptr<RunLoopHandle>> create(RunLoop& loop, const std::string& what,
                                                       UniqueFd pidfd,
                                                       ExitWatcher::Callback onExit) {
    auto watch = std::make_unique<PidfdWatch>(std::move(pidfd), std::move(onExit));
    auto source = loop.watchReadable(watch->pidfd_.get(), Urgency::kProcessExit,
                                     [self = watch.get()] { self->ended(); });
    if (!source) {
      source.error().context.insert(0, what + ": ");
      return std::unexpected(std::move(source.error()));
    }
    watch->source_ = std::move(*source);
    return watch;
  }

  PidfdWatch(UniqueFd pidfd, ExitWatcher::Callback onExit)
      : pidfd_(std::move(pidfd)), onExit_(std::move(onExit)) {}

 private:
  void ended() {
    const std::optional<ExitStatus> status = reapIfOurs(pidfd_.get());
    // A handle may be kept for long after its process: nothing but the handle is left of it.
    source_.reset();
    pidfd_.reset();
    ExitWatcher::Callback onExit = std::move(onExit_);  // It may destroy this watch while it runs.
    onExit(status);
  }

  UniqueFd pidfd_;
  ExitWatcher::Callback onExit_;
  std::unique_ptr<RunLoopHandle> source_;  // Goes before the descriptor.
};

// A process that had gone before it was watched.
class GoneWatch final : public RunLoopHandle {
 public:
  GoneWatch(RunLoop& loop, ExitWatcher::Callback onExit)
      : onExit_(std::make_shared<ExitWatcher::Callback>(std::move(onExit))) {
    loop.post(
        [alive = std::weak_ptr(onExit_)] {
          const auto held = alive.lock();
          if (!held) return;
          // A handle may be kept for long after its process, and with it what the callback holds.
          ExitWatcher::Callback onExit = std::move(*held);
          onExit(std::nullopt);
        },
        Urgency::kProcessExit);
  }

 private:
  // Shared with the post for as long as it looks whether the watch still stands.
  std::shared_ptr<ExitWatcher::Callback> onExit_;
};

bool isGone(ProcessId process) { return ::kill(process, 0) != 0 && errno == ESRCH; }

}  // namespace

Result<std::unique_ptr<RunLoopHandle>> PidfdExitWatcher::watchExit(ProcessId process,
                                                                   Callback onExit) {
  const std::string what = "watching process " + std::to_string(process);
  if (process <= 0) return std::unexpected(Error{ErrorCode::kInvalid, 0, what});
  UniqueFd pidfd(::pidfd_open(process, 0));
  if (pidfd) return PidfdWatch::create(loop_, what, std::move(pidfd), std::move(onExit));
  Error error = systemError(what);
  switch (error.osError) {
    case ESRCH:
      return std::make_unique<GoneWatch>(loop_, std::move(onExit));
    case EINVAL:  // Which of the two depends on the kernel.
    case ENOENT:
      // Either the number is that of a thread, or of a process that has gone while its group, or
      // the call for it, still uses the number.
      if (isGone(process)) return std::make_unique<GoneWatch>(loop_, std::move(onExit));
      error.code = ErrorCode::kInvalid;
      break;
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      error.code = ErrorCode::kExhausted;
      break;
    default:
      break;
  }
  return std::unexpected(std::move(error));
}

}  // namespace platform
