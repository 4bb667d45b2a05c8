#include "JobHost/Processes/OrphanReaper.h"

#include <cerrno>
#include <csignal>
#include <system_error>
#include <utility>

#include <asio/signal_set.hpp>
#include <sys/prctl.h>
#include <sys/wait.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace jobhost {

using platform::Error;
using platform::ErrorCode;
using platform::Result;

// Calls back on the loop, with ordinary urgency, some time after children have ended.
class OrphanReaper::Signals {
 public:
  Signals(platform::AsioRunLoop& loop, std::function<void()> onChildren)
      : loop_(loop),
        set_(loop.context()),
        onChildren_(std::make_shared<std::function<void()>>(std::move(onChildren))) {}

  std::error_code start() {
    std::error_code error;
    set_.add(SIGCHLD, error);
    if (!error) await();
    return error;
  }

  void post() {
    loop_.post([alive = std::weak_ptr(onChildren_)] {
      if (const auto onChildren = alive.lock()) (*onChildren)();
    });
  }

 private:
  void await() {
    // A completed wait runs its handler without an error even after the set is gone.
    set_.async_wait([this, alive = std::weak_ptr(onChildren_)](std::error_code error, int) {
      if (error || alive.expired()) return;
      post();
      await();
    });
  }

  platform::AsioRunLoop& loop_;
  asio::signal_set set_;
  // A pending call checks by it whether this still exists.
  std::shared_ptr<std::function<void()>> onChildren_;
};

OrphanReaper::OrphanReaper(platform::AsioRunLoop& loop, IsAwaited isAwaited)
    : loop_(loop), isAwaited_(std::move(isAwaited)) {}

OrphanReaper::~OrphanReaper() = default;

Result<void> OrphanReaper::start() {
  if (::prctl(PR_SET_CHILD_SUBREAPER, 1) != 0) {
    return std::unexpected(platform::systemError("prctl(PR_SET_CHILD_SUBREAPER)"));
  }
  try {
    signals_ = std::make_unique<Signals>(loop_, [this] { reap(); });
    if (const std::error_code error = signals_->start()) {
      return std::unexpected(Error{ErrorCode::kSystem, error.value(), "watching SIGCHLD"});
    }
  } catch (const std::system_error& error) {  // Asio needs a pipe of its own for the first one.
    return std::unexpected(Error{ErrorCode::kExhausted, error.code().value(), "watching SIGCHLD"});
  }
  signals_->post();  // There may be orphans already.
  return {};
}

void OrphanReaper::reap() {
  for (;;) {
    siginfo_t info{};
    const int result = platform::retryOnInterrupt(
        [&] { return ::waitid(P_ALL, 0, &info, WEXITED | WNOHANG | WNOWAIT | __WALL); });
    if (result != 0 || info.si_pid == 0) return;
    if (isAwaited_(info.si_pid)) {
      // waitid() reports the same child until it is reaped, which happens before the next ordinary
      // callback. Then look for the others.
      signals_->post();
      return;
    }
    platform::retryOnInterrupt([&] {
      return ::waitid(P_PID, static_cast<id_t>(info.si_pid), nullptr, WEXITED | WNOHANG | __WALL);
    });
  }
}

}  // namespace jobhost
