#include "Platform/Testing/Notifications/FakeNotificationBus.h"

#include <memory>

#include <gtest/gtest.h>

#include "Platform/Notifications/DistributedNotificationCenter_contract.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

class FakeBusHarness final : public NotificationHarness {
 public:
  RunLoop& loop() override { return loop_; }
  DistributedNotificationCenter& center() override { return *center_; }
  DistributedNotificationCenter& other() override { return *other_; }
  FakeLogSink& log() override { return sink_; }
  void stopBus() override { bus_.stop(); }
  void startBus() override { bus_.start(); }

 private:
  VirtualRunLoop loop_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  FakeNotificationBus bus_{loop_};
  std::unique_ptr<DistributedNotificationCenter> center_ = bus_.makeCenter(log_);
  std::unique_ptr<DistributedNotificationCenter> other_ = bus_.makeCenter(log_);
};

std::unique_ptr<NotificationHarness> makeFakeBusHarness() {
  return std::make_unique<FakeBusHarness>();
}

INSTANTIATE_TEST_SUITE_P(Fake, DistributedNotificationCenterContract,
                         testing::Values(&makeFakeBusHarness));

}  // namespace
}  // namespace platform
