#include "Platform/RunLoops/DelayedCalls.h"

#include <gtest/gtest.h>

#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

using namespace std::chrono_literals;

class DelayedCallsTest : public testing::Test {
 protected:
  RunLoop::Callback note(int number) {
    return [this, number] { ran_.push_back(number); };
  }

  VirtualRunLoop loop_;
  std::optional<DelayedCalls> calls_{std::in_place, loop_};
  std::vector<int> ran_;
};

TEST_F(DelayedCallsTest, ACallRunsOnceAfterItsDelay) {
  calls_->perform({"call 1"}, note(1), 3s);
  loop_.advanceBy(3s - 1ns);
  EXPECT_TRUE(ran_.empty());
  loop_.advanceBy(1ns);
  EXPECT_EQ(ran_, std::vector{1});
  loop_.advanceBy(1h);
  EXPECT_EQ(ran_, std::vector{1});
}

TEST_F(DelayedCallsTest, CallsRunInTheOrderOfTimeThenOfPerform) {
  calls_->perform({"call 2"}, note(3), 2s);
  calls_->perform({"call 3"}, note(1), 1s);
  calls_->perform({"call 4"}, note(2), 1s);
  loop_.advanceBy(2s);
  EXPECT_EQ(ran_, (std::vector{1, 2, 3}));
}

TEST_F(DelayedCallsTest, APendingCallStandsForAllOfItsKey) {
  const auto held = std::make_shared<int>();  // Owned by a call and this test.
  calls_->perform({"evaluate", "agent"}, note(1), 3s);
  loop_.advanceBy(1s);
  calls_->perform({"evaluate", "agent"}, [held] {}, 1s);
  EXPECT_EQ(held.use_count(), 1);
  calls_->perform({"evaluate", "helper"}, note(2), 3s);
  calls_->perform({"stop", "agent"}, note(3), 3s);
  EXPECT_EQ(calls_->pending(), 3);
  EXPECT_EQ(calls_->due({"evaluate", "agent"}), loop_.now() + 2s);
  loop_.advanceBy(1h);
  EXPECT_EQ(ran_, (std::vector{1, 2, 3}));
}

TEST_F(DelayedCallsTest, ACallThatHasRunStandsForNoOther) {
  calls_->perform({"evaluate"}, note(1), 1s);
  loop_.advanceBy(1s);
  EXPECT_EQ(calls_->due({"evaluate"}), std::nullopt);
  calls_->perform({"evaluate"}, note(2), 1s);
  loop_.advanceBy(1s);
  EXPECT_EQ(ran_, (std::vector{1, 2}));
}

TEST_F(DelayedCallsTest, CallsEndWithTheirOwner) {
  const auto held = std::make_shared<int>();  // Owned by the call and this test.
  calls_->perform({"call 5"}, [held] {}, 1s);
  calls_->perform({"call 6"}, note(2), 0s);
  calls_.reset();
  EXPECT_EQ(held.use_count(), 1);
  loop_.advanceBy(1h);
  EXPECT_TRUE(ran_.empty());
}

TEST_F(DelayedCallsTest, FinishedCallsAreReleased) {
  const auto held = std::make_shared<int>();  // Owned by the call and this test.
  calls_->perform({"call 7"}, [held] {}, 1s);
  calls_->perform({"call 8"}, note(2), 2s);
  EXPECT_EQ(calls_->pending(), 2);
  loop_.advanceBy(1s);
  EXPECT_EQ(calls_->pending(), 1);
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(DelayedCallsTest, ACallMayPerformAnother) {
  calls_->perform(
      {"call 9"},
      [this] {
        EXPECT_EQ(calls_->pending(), 0);
        calls_->perform({"call 10"}, note(2), 0s);
        ran_.push_back(1);
      },
      1s);
  loop_.advanceBy(1s);
  EXPECT_EQ(ran_, (std::vector{1, 2}));
}

TEST_F(DelayedCallsTest, ACallMayDestroyItsOwner) {
  const auto held = std::make_shared<int>(5);  // Owned by the call and this test.
  calls_->perform(
      {"call 11"},
      [this, held] {
        calls_.reset();
        ran_.push_back(*held);
      },
      1s);
  calls_->perform({"call 12"}, note(1), 1s);
  loop_.advanceBy(1h);
  EXPECT_EQ(ran_, std::vector{5});
}

}  // namespace
}  // namespace platform
