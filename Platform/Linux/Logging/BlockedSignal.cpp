#include "Platform/Linux/Logging/BlockedSignal.h"

#include <ctime>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

BlockedSignal::BlockedSignal(int signal) noexcept {
  ::sigemptyset(&signal_);
  ::sigaddset(&signal_, signal);
  ::pthread_sigmask(SIG_BLOCK, &signal_, &before_);
  // Only a blocked signal can have been pending for this thread.
  if (::sigismember(&before_, signal) == 1) {
    sigset_t pending;
    ::sigpending(&pending);
    wasPending_ = ::sigismember(&pending, signal) == 1;
  }
}

BlockedSignal::~BlockedSignal() { ::pthread_sigmask(SIG_SETMASK, &before_, nullptr); }

void BlockedSignal::discard() noexcept {
  if (wasPending_) return;
  const timespec noWait{};
  static_cast<void>(retryOnInterrupt([&] { return ::sigtimedwait(&signal_, nullptr, &noWait); }));
}

}  // namespace platform
