#include "Platform/Testing/Notifications/FakeNotificationBus.h"

#include <chrono>
#include <memory>
#include <optional>

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

TEST(FakeNotificationBusTest, APostOfAProgramThatLogsInTooLateWaits) {
  VirtualRunLoop loop;
  FakeLogSink sink;
  SystemLog log{sink, "program"};
  FakeNotificationBus bus{loop};
  const auto other = bus.makeCenter(log);
  int got = 0;
  const auto observer = other->addObserver("com.vantor.a", std::nullopt,
                                           [&](const DistributedNotification&) { ++got; });
  const auto center = bus.makeCenter(log);
  loop.sleepFor(FakeNotificationBus::kLogInTime + std::chrono::seconds(1));
  center->postNotificationName("com.vantor.a", std::nullopt, {},
                               NSNotificationPosting::kThisSession);
  loop.runReady();
  EXPECT_EQ(got, 0);
  loop.advanceBy(FakeNotificationBus::kRetryTime);
  EXPECT_EQ(got, 1);
}

}  // namespace
}  // namespace platform
