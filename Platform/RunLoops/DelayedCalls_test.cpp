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
  calls_->perform(note(1), 3s);
  loop_.advanceBy(3s - 1ns);
  EXPECT_TRUE(ran_.empty());
  loop_.advanceBy(1ns);
  EXPECT_EQ(ran_, std::vector{1});
  loop_.advanceBy(1h);
  EXPECT_EQ(ran_, std::vector{1});
}

TEST_F(DelayedCallsTest, CallsRunInTheOrderOfTimeThenOfPerform) {
  calls_->perform(note(3), 2s);
  calls_->perform(note(1), 1s);
  calls_->perform(note(2), 1s);
  loop_.advanceBy(2s);
  EXPECT_EQ(ran_, (std::vector{1, 2, 3}));
}

TEST_F(DelayedCallsTest, CallsEndWithTheirOwner) {
  const auto held = std::make_shared<int>();  // Owned by the call and this test.
  calls_->perform([held] {}, 1s);
  calls_->perform(note(2), 0s);
  calls_.reset();
  EXPECT_EQ(held.use_count(), 1);
  loop_.advanceBy(1h);
  EXPECT_TRUE(ran_.empty());
}

TEST_F(DelayedCallsTest, FinishedCallsAreReleased) {
  const auto held = std::make_shared<int>();  // Owned by the call and this test.
  calls_->perform([held] {}, 1s);
  calls_->perform(note(2), 2s);
  EXPECT_EQ(calls_->pending(), 2);
  loop_.advanceBy(1s);
  EXPECT_EQ(calls_->pending(), 1);
  EXPECT_EQ(held.use_count(), 1);
}

TEST_F(DelayedCallsTest, ACallMayPerformAnother) {
  calls_->perform(
      [this] {
        EXPECT_EQ(calls_->pending(), 0);
        calls_->perform(note(2), 0s);
        ran_.push_back(1);
      },
      1s);
  loop_.advanceBy(1s);
  EXPECT_EQ(ran_, (std::vector{1, 2}));
}

TEST_F(DelayedCallsTest, ACallMayDestroyItsOwner) {
  const auto held = std::make_shared<int>(5);  // Owned by the call and this test.
  calls_->perform(
      [this, held] {
        calls_.reset();
        ran_.push_back(*held);
      },
      1s);
  calls_->perform(note(1), 1s);
  loop_.advanceBy(1h);
  EXPECT_EQ(ran_, std::vector{5});
}

}  // namespace
}  // namespace platform
