#include "Platform/Linux/Processes/PidfdExitWatcher.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <csignal>
#include <string>
#include <utility>

#include "Platform/Linux/Processes/ChildEnd.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {

namespace {

// Watches a process that still exists.
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
    const auto end = reapIfEnded(pidfd_.get());
    // A handle may be kept long after its process has ended, so free everything else.
    source_.reset();
    pidfd_.reset();
    ExitWatcher::Callback onExit = std::move(onExit_);  // It may destroy this watch while it runs.
    onExit(end ? std::optional(end->status) : std::nullopt);
  }

  UniqueFd pidfd_;
  ExitWatcher::Callback onExit_;
  std::unique_ptr<RunLoopHandle> source_;  // Destroyed before the descriptor.
};

// Stands for a process that ended before it was watched.
class GoneWatch final : public RunLoopHandle {
 public:
  GoneWatch(RunLoop& loop, ExitWatcher::Callback onExit)
      : onExit_(std::make_shared<ExitWatcher::Callback>(std::move(onExit))) {
    loop.post(
        [alive = std::weak_ptr(onExit_)] {
          const auto held = alive.lock();
          if (!held) return;
          // A handle may be kept long after its process; free what the callback holds.
          ExitWatcher::Callback onExit = std::move(*held);
          onExit(std::nullopt);
        },
        Urgency::kProcessExit);
  }

 private:
  // Shared with the post, which checks whether the watch still exists.
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
    case EINVAL:  // The kernel's version decides which of the two it is.
    case ENOENT:
      // The number belongs to a thread, or to a process that has ended while its group or this very
      // call still uses the number.
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
