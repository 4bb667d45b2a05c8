#include "Platform/Linux/BackgroundServices/AsioTerminationSignals.h"

#include <csignal>
#include <memory>
#include <system_error>
#include <utility>

#include <asio/signal_set.hpp>

namespace platform {

namespace {

class Watch final : public RunLoopHandle {
 public:
  Watch(AsioRunLoop& loop, RunLoop::Callback onRequest)
      : loop_(loop),
        signals_(loop.context()),
        onRequest_(std::make_shared<RunLoop::Callback>(std::move(onRequest))) {}

  std::error_code start() {
    std::error_code error;
    for (const int signal : {SIGTERM, SIGINT}) {
      if (!error) signals_.add(signal, error);
    }
    if (!error) await();
    return error;
  }

 private:
  void await() {
    // A completed wait still runs its handler, without an error, after the signal set is destroyed.
    signals_.async_wait([this, alive = std::weak_ptr(onRequest_)](std::error_code error, int) {
      const auto onRequest = alive.lock();
      if (error || !onRequest) return;
      loop_.post([alive] {
        if (const auto onRequest = alive.lock()) (*onRequest)();
      });
      await();
    });
  }

  AsioRunLoop& loop_;
  asio::signal_set signals_;
  // Shared with a running call: the callback may destroy the watch.
  std::shared_ptr<RunLoop::Callback> onRequest_;
};

}  // namespace

Result<std::unique_ptr<RunLoopHandle>> AsioTerminationSignals::watchTermination(
    RunLoop::Callback onRequest) {
  try {
    auto watch = std::make_unique<Watch>(loop_, std::move(onRequest));
    if (const std::error_code error = watch->start()) {
      return std::unexpected(
          Error{ErrorCode::kSystem, error.value(), "watching SIGTERM and SIGINT"});
    }
    return watch;
  } catch (const std::system_error& error) {  // Asio makes a pipe for its first signal set.
    return std::unexpected(
        Error{ErrorCode::kExhausted, error.code().value(), "watching SIGTERM and SIGINT"});
  }
}

}  // namespace platform
