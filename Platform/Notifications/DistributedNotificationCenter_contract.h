#pragma once

// The contract of every centre of distributed notifications. A test program derives a
// NotificationHarness and instantiates:
//   INSTANTIATE_TEST_SUITE_P(Fake, DistributedNotificationCenterContract,
//                            testing::Values(&makeFakeHarness));

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Testing/Logging/FakeLogSink.h"

namespace platform {

// Two programs on one bus.
class NotificationHarness {
 public:
  virtual ~NotificationHarness() = default;

  virtual RunLoop& loop() = 0;
  virtual DistributedNotificationCenter& center() = 0;
  virtual DistributedNotificationCenter& other() = 0;
  // The log of both programs.
  virtual FakeLogSink& log() = 0;
  virtual void stopBus() = 0;
  virtual void startBus() = 0;
};

class DistributedNotificationCenterContract
    : public testing::TestWithParam<std::unique_ptr<NotificationHarness> (*)()> {
 protected:
  using Center = DistributedNotificationCenter;
  using Observation = std::unique_ptr<Center::Observation>;
  static constexpr auto kThisSession = NSNotificationPosting::kThisSession;
  static constexpr auto kAllSessions = NSNotificationPosting::kPostToAllSessions;

  Center& center() { return harness_->center(); }
  Center& other() { return harness_->other(); }
  RunLoop& loop() { return harness_->loop(); }

  Center::Handler note() {
    return [this](const DistributedNotification& notification) { got_.push_back(notification); };
  }
  Center::Handler note(std::string who) {
    return [this, who = std::move(who)](const DistributedNotification&) { calls_.push_back(who); };
  }

  // Runs the loop until `ready` holds.
  void runUntil(const std::function<bool()>& ready) {
    using namespace std::chrono_literals;
    const auto look = loop().startTimer(1ms, RunLoop::Repeat::kEvery, [&] {
      if (ready()) loop().stop();
    });
    const auto deadline = loop().startTimer(60s, RunLoop::Repeat::kOnce, [&] {
      ADD_FAILURE() << "it did not happen";
      loop().stop();
    });
    loop().run();
  }

  // Delivers the posts of both sides.
  void deliver() {
    int marks = 0;
    const auto count = [&](const DistributedNotification&) { ++marks; };
    const auto atCenter = center().addObserver("com.vantor.test.mark", std::nullopt, count);
    const auto atOther = other().addObserver("com.vantor.test.mark", std::nullopt, count);
    center().postNotificationName("com.vantor.test.mark", std::nullopt, {}, kThisSession);
    other().postNotificationName("com.vantor.test.mark", std::nullopt, {}, kThisSession);
    runUntil([&] { return marks == 4; });
  }

  std::vector<DistributedNotification> got_;
  std::vector<std::string> calls_;
  std::unique_ptr<NotificationHarness> harness_ = GetParam()();
};

TEST_P(DistributedNotificationCenterContract, AnObserverReceivesThePostsOfAnotherProgram) {
  const Observation observer = center().addObserver("com.vantor.a", std::nullopt, note());
  const Value info = Dictionary{{"Error", "title"}, {"Number", 7}, {"List", Array{true, 1.5}}};
  other().postNotificationName("com.vantor.a", std::nullopt, {}, kAllSessions);
  other().postNotificationName("com.vantor.b", std::nullopt, {}, kAllSessions);
  other().postNotificationName("com.vantor.a", "sender", info, kThisSession);
  deliver();
  EXPECT_EQ(got_, (std::vector<DistributedNotification>{{"com.vantor.a", std::nullopt, {}},
                                                        {"com.vantor.a", "sender", info}}));
}

TEST_P(DistributedNotificationCenterContract, ThePosterReceivesItsOwnPosts) {
  const Observation observer = center().addObserver("com.vantor.a", std::nullopt, note());
  center().postNotificationName("com.vantor.a", std::nullopt, {}, kThisSession);
  EXPECT_TRUE(got_.empty());  // The post itself never calls it.
  deliver();
  EXPECT_EQ(got_.size(), 1U);
}

TEST_P(DistributedNotificationCenterContract, AnObserverOfAnObjectReceivesOnlyItsPosts) {
  const Observation one = center().addObserver("com.vantor.a", "one", note("one"));
  const Observation any = center().addObserver("com.vantor.a", std::nullopt, note("any"));
  for (const auto& object : {std::optional<std::string>(), {"one"}, {"two"}, {""}})
    other().postNotificationName("com.vantor.a", object, {}, kThisSession);
  deliver();
  EXPECT_THAT(calls_, testing::ElementsAre("any", "one", "any", "any", "any"));
}

TEST_P(DistributedNotificationCenterContract, AnObserverOfAnyNameReceivesAll) {
  const Observation all = center().addObserver(std::nullopt, "me", note());
  other().postNotificationName("com.vantor.a", "me", {}, kThisSession);
  other().postNotificationName("com.vantor.b", "me", {}, kThisSession);
  other().postNotificationName("com.vantor.b", "you", {}, kThisSession);
  deliver();
  EXPECT_EQ(got_, (std::vector<DistributedNotification>{{"com.vantor.a", "me", {}},
                                                        {"com.vantor.b", "me", {}}}));
}

TEST_P(DistributedNotificationCenterContract, EverySuspensionBehaviorDeliversInTheOrderOfAdding) {
  std::vector<Observation> observers;
  for (const auto behavior :
       {NSNotificationSuspensionBehavior::kDrop, NSNotificationSuspensionBehavior::kCoalesce,
        NSNotificationSuspensionBehavior::kHold,
        NSNotificationSuspensionBehavior::kDeliverImmediately}) {
    observers.push_back(center().addObserver(
        "com.vantor.a", std::nullopt, note(std::to_string(static_cast<int>(behavior))), behavior));
  }
  other().postNotificationName("com.vantor.a", std::nullopt, {}, kThisSession);
  deliver();
  EXPECT_THAT(calls_, testing::ElementsAre("1", "2", "3", "4"));
}

TEST_P(DistributedNotificationCenterContract, NamesAreComparedExactly) {
  const std::string odd = "it's, a='name' \\ with \"quotes\" and \xC3\xA9";
  const Observation observer = center().addObserver(odd, std::nullopt, note());
  const Observation prefix = center().addObserver("it", std::nullopt, note("prefix"));
  other().postNotificationName(odd, std::nullopt, {}, kThisSession);
  deliver();
  EXPECT_EQ(got_, (std::vector<DistributedNotification>{{odd, std::nullopt, {}}}));
  EXPECT_TRUE(calls_.empty());
}

TEST_P(DistributedNotificationCenterContract, AnEndedObserverIsNotCalled) {
  Observation first;
  Observation second;
  const auto endBoth = [&](const DistributedNotification&) {
    calls_.push_back("called");
    first.reset();
    second.reset();
  };
  first = center().addObserver("com.vantor.a", std::nullopt, endBoth);
  second = center().addObserver("com.vantor.a", std::nullopt, endBoth);
  other().postNotificationName("com.vantor.a", std::nullopt, {}, kThisSession);
  other().postNotificationName("com.vantor.a", std::nullopt, {}, kThisSession);
  deliver();
  EXPECT_THAT(calls_, testing::ElementsAre("called"));
}

TEST_P(DistributedNotificationCenterContract, AnObserversEndLeavesTheOthersOfItsName) {
  Observation first = center().addObserver("com.vantor.a", std::nullopt, note("first"));
  const Observation second = center().addObserver("com.vantor.a", std::nullopt, note("second"));
  first.reset();
  other().postNotificationName("com.vantor.a", std::nullopt, {}, kThisSession);
  deliver();
  EXPECT_THAT(calls_, testing::ElementsAre("second"));
}

TEST_P(DistributedNotificationCenterContract, AHandlerMayObserveAndPost) {
  Observation inner;
  const Observation outer =
      center().addObserver("com.vantor.a", std::nullopt, [&](const DistributedNotification&) {
        inner = center().addObserver("com.vantor.b", std::nullopt, note());
        center().postNotificationName("com.vantor.b", std::nullopt, {}, kThisSession);
      });
  other().postNotificationName("com.vantor.a", std::nullopt, {}, kThisSession);
  runUntil([&] { return !got_.empty(); });
  EXPECT_EQ(got_, (std::vector<DistributedNotification>{{"com.vantor.b", std::nullopt, {}}}));
}

TEST_P(DistributedNotificationCenterContract, AnyThreadMayPost) {
  const Observation observer = center().addObserver("com.vantor.a", std::nullopt, note());
  {
    std::vector<std::jthread> threads;
    for (int i = 0; i < 4; ++i) {
      threads.emplace_back(
          [&] { center().postNotificationName("com.vantor.a", "thread", {}, kThisSession); });
    }
  }
  runUntil([&] { return got_.size() == 4; });
}

TEST_P(DistributedNotificationCenterContract, AnInvalidPostIsLoggedAndDropped) {
  const Observation observer = center().addObserver(std::nullopt, "me", note());
  center().postNotificationName("", "me", {}, kThisSession);
  center().postNotificationName("com.vantor.a", "me", "text", kThisSession);
  center().postNotificationName("com.vantor.a", "me", Array{}, kThisSession);
  deliver();
  EXPECT_TRUE(got_.empty());
  EXPECT_THAT(
      harness_->log().texts(),
      testing::ElementsAre(
          "The notification \"\" was not posted: it has no name",
          "The notification \"com.vantor.a\" was not posted: its user info is no dictionary",
          "The notification \"com.vantor.a\" was not posted: its user info is no dictionary"));
}

TEST_P(DistributedNotificationCenterContract, PostsWithoutABusAreSentToTheNext) {
  const Observation observer = center().addObserver("com.vantor.a", std::nullopt, note());
  harness_->stopBus();
  center().postNotificationName("com.vantor.a", "first", {}, kThisSession);
  center().postNotificationName("com.vantor.a", "second", {}, kThisSession);
  harness_->startBus();
  runUntil([&] { return got_.size() == 2; });
  EXPECT_EQ(got_[0].object, "first");
  EXPECT_EQ(got_[1].object, "second");
  EXPECT_THAT(harness_->log().texts(),
              testing::Not(testing::Contains(testing::HasSubstr("was not posted"))));
}

TEST_P(DistributedNotificationCenterContract, ObserversSurviveARestartOfTheBus) {
  const Observation before = center().addObserver("com.vantor.a", std::nullopt, note("before"));
  harness_->stopBus();
  const Observation during = center().addObserver("com.vantor.b", std::nullopt, note("during"));
  harness_->startBus();
  using namespace std::chrono_literals;
  const auto poster = loop().startTimer(20ms, RunLoop::Repeat::kEvery, [&] {
    other().postNotificationName("com.vantor.a", std::nullopt, {}, kThisSession);
    other().postNotificationName("com.vantor.b", std::nullopt, {}, kThisSession);
  });
  const auto has = [&](const char* who) { return std::ranges::find(calls_, who) != calls_.end(); };
  runUntil([&] { return has("before") && has("during"); });
}

TEST_P(DistributedNotificationCenterContract, TheReturnOfTheBusIsReportedAfterItsConfirmation) {
  const Observation observer = center().addObserver("com.vantor.a", "after", note());
  const Observation before = center().observeReturn([this] { calls_.push_back("told"); });
  Observation ended = center().observeReturn([this] { calls_.push_back("ended"); });
  deliver();
  EXPECT_TRUE(calls_.empty());
  harness_->stopBus();
  const Observation during = center().observeReturn([this] {
    calls_.push_back("told");
    center().postNotificationName("com.vantor.a", "after", {}, kThisSession);
  });
  ended.reset();
  harness_->startBus();
  EXPECT_TRUE(calls_.empty());
  runUntil([&] { return !got_.empty(); });
  EXPECT_THAT(calls_, testing::ElementsAre("told", "told"));
  EXPECT_EQ(got_.size(), 1U);
}

TEST_P(DistributedNotificationCenterContract, AReturnHandlerMayEndTheOthersAndItself) {
  Observation first;
  Observation second;
  const auto endBoth = [&] {
    calls_.push_back("told");
    first.reset();
    second.reset();
  };
  first = center().observeReturn(endBoth);
  second = center().observeReturn(endBoth);
  harness_->stopBus();
  harness_->startBus();
  runUntil([&] { return !calls_.empty(); });
  EXPECT_THAT(calls_, testing::ElementsAre("told"));
}

}  // namespace platform
