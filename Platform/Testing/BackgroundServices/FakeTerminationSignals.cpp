#include "Platform/Testing/BackgroundServices/FakeTerminationSignals.h"

#include <cstdlib>
#include <utility>

namespace platform {

class FakeTerminationSignals::Watch final : public RunLoopHandle {
 public:
  explicit Watch(std::shared_ptr<RunLoop::Callback> onRequest) : onRequest_(std::move(onRequest)) {}

 private:
  // Shared with a running call: the callback may destroy the watch.
  std::shared_ptr<RunLoop::Callback> onRequest_;
};

Result<std::unique_ptr<RunLoopHandle>> FakeTerminationSignals::watchTermination(
    RunLoop::Callback onRequest) {
  auto callback = std::make_shared<RunLoop::Callback>(std::move(onRequest));
  onRequest_ = callback;
  return std::make_unique<Watch>(std::move(callback));
}

void FakeTerminationSignals::request() {
  if (onRequest_.expired()) std::abort();
  loop_.post(
      [alive = onRequest_] {
        if (const auto onRequest = alive.lock()) (*onRequest)();
      },
      Urgency::kTermination);
}

}  // namespace platform
