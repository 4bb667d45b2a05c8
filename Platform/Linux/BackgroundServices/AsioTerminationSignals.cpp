#include "Platform/Linux/BackgroundServices/AsioTerminationSignals.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <memory>
#include <tuple>
#include <utility>

#include <sys/eventfd.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

// Readable after a signal. It is never closed: another thread may still be in the handler when the
// watch ends.
int requested = -1;

void noteRequest(int /*signal*/) {
  const int number = errno;
  const std::uint64_t one = 1;
  // If it fails, the counter is at its maximum, and a request is noted already.
  std::ignore = ::write(requested, &one, sizeof(one));
  errno = number;
}

std::unexpected<Error> failedWith(ErrorCode code, int errorNumber) {
  return std::unexpected(Error{code, errorNumber, "watching SIGTERM and SIGINT"});
}

void forgetRequests() {
  std::uint64_t requests = 0;
  std::ignore = ::read(requested, &requests, sizeof(requests));
}

// Handles a signal until it is destroyed.
class Handler {
 public:
  explicit Handler(int signal) : signal_(signal) {
    struct sigaction action{};
    action.sa_handler = &noteRequest;
    action.sa_flags = SA_RESTART;
    ::sigfillset(&action.sa_mask);
    ::sigaction(signal_, &action, &before_);
  }
  Handler(const Handler&) = delete;
  Handler& operator=(const Handler&) = delete;
  ~Handler() { ::sigaction(signal_, &before_, nullptr); }

 private:
  const int signal_;
  struct sigaction before_{};
};

class Watch final : public RunLoopHandle {
 public:
  Watch(AsioRunLoop& loop, RunLoop::Callback onRequest)
      : loop_(loop), onRequest_(std::make_shared<RunLoop::Callback>(std::move(onRequest))) {}

  // An urgent source and not a signal set of Asio, which would let the callbacks of a whole turn
  // run before it reports the signal.
  Result<void> await() {
    auto source = loop_.watchReadable(requested, Urgency::kTermination, [this] {
      const auto onRequest = onRequest_;
      forgetRequests();
      std::ignore = await();  // There is room, because the source has just left the set.
      (*onRequest)();
    });
    if (!source) return failedWith(source.error().code, source.error().osError);
    source_ = *std::move(source);
    return {};
  }

 private:
  AsioRunLoop& loop_;
  // Shared with a running call: the callback may destroy the watch.
  std::shared_ptr<RunLoop::Callback> onRequest_;
  Handler terminate_{SIGTERM};
  Handler interrupt_{SIGINT};
  std::unique_ptr<RunLoopHandle> source_;
};

}  // namespace

Result<std::unique_ptr<RunLoopHandle>> AsioTerminationSignals::watchTermination(
    RunLoop::Callback onRequest) {
  if (requested < 0) requested = ::eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
  if (requested < 0) return failedWith(errorCodeOf(errno), errno);
  forgetRequests();
  auto watch = std::make_unique<Watch>(loop_, std::move(onRequest));
  if (auto awaited = watch->await(); !awaited) return std::unexpected(std::move(awaited.error()));
  return watch;
}

}  // namespace platform
