#include "Platform/RunLoops/TimerQueue.h"

#include <algorithm>
#include <random>

#include <gtest/gtest.h>

namespace platform {
namespace {

using namespace std::chrono_literals;

constexpr Instant kStart{1h};

class TimerQueueTest : public testing::Test {
 protected:
  std::unique_ptr<RunLoopHandle> add(Instant due, Duration period, int number) {
    return queue_.add({due, ++order_}, period, [this, number] { fired_.push_back(number); });
  }

  // Fires like a loop that is never late.
  void fireUntil(Instant end) {
    while (!queue_.empty() && queue_.earliest().due <= end) {
      queue_.fireEarliest(queue_.earliest().due);
    }
  }

  TimerQueue queue_;
  std::uint64_t order_ = 0;
  std::vector<int> fired_;
};

TEST_F(TimerQueueTest, TimersFireByTimeAndThenInTheirOrder) {
  std::mt19937 random(7);  // NOLINT: the same numbers on every run.
  std::vector<std::pair<Instant, int>> expected;
  std::vector<std::unique_ptr<RunLoopHandle>> timers;
  for (int number = 0; number < 2000; ++number) {
    const Instant due = kStart + std::chrono::seconds(random() % 300);
    expected.emplace_back(due, number);
    timers.push_back(add(due, 0s, number));
  }
  // A third of them are destroyed before they are due, all over the heap.
  for (int number = 0; number < 2000; number += 3) timers[number].reset();
  std::erase_if(expected, [](const auto& timer) { return timer.second % 3 == 0; });
  std::ranges::sort(expected);  // By time, and then by number: the order in which they were added.
  fireUntil(Instant::max());
  ASSERT_EQ(fired_.size(), expected.size());
  for (std::size_t i = 0; i < fired_.size(); ++i) EXPECT_EQ(fired_[i], expected[i].second);
}

TEST_F(TimerQueueTest, ARepeatingTimerIsDueAtTheEndsOfItsPeriods) {
  const auto timer = add(kStart + 10s, 10s, 1);
  std::vector<Instant> dues;
  for (int i = 0; i < 3; ++i) {
    dues.push_back(queue_.earliest().due);
    queue_.fireEarliest(dues.back() + 9s);  // Late, but within the period.
  }
  EXPECT_EQ(dues, (std::vector{kStart + 10s, kStart + 20s, kStart + 30s}));
}

TEST_F(TimerQueueTest, APeriodThatEndsAsItFiresIsMissed) {
  const auto timer = add(kStart + 10s, 10s, 1);
  queue_.fireEarliest(kStart + 20s - 1ns);
  EXPECT_EQ(queue_.earliest().due, kStart + 20s);
  queue_.fireEarliest(kStart + 30s);
  EXPECT_EQ(queue_.earliest().due, kStart + 40s);
  queue_.fireEarliest(kStart + 1000s);
  EXPECT_EQ(queue_.earliest().due, kStart + 1010s);
  EXPECT_EQ(fired_.size(), 3);
}

TEST_F(TimerQueueTest, RepeatingTimersThatMeetFireInTheOrderOfTheirCreation) {
  const auto slow = add(kStart + 6s, 6s, 6);
  const auto quick = add(kStart + 2s, 2s, 2);
  const auto middle = add(kStart + 3s, 3s, 3);
  fireUntil(kStart + 6s);
  EXPECT_EQ(fired_, (std::vector{2, 3, 2, 6, 2, 3}));
}

TEST_F(TimerQueueTest, ATimerThatRunsTheQueueIsNotCalledRecursively) {
  int depth = 0;
  int calls = 0;
  const auto timer = queue_.add({kStart, ++order_}, 1s, [&] {
    EXPECT_EQ(depth, 0);
    ++depth;
    ++calls;
    queue_.fireEarliest(queue_.earliest().due);
    --depth;
  });
  queue_.fireEarliest(kStart);
  EXPECT_EQ(calls, 1);
  EXPECT_EQ(queue_.earliest().due, kStart + 2s);
  queue_.fireEarliest(kStart + 2s);
  EXPECT_EQ(calls, 2);
}

TEST_F(TimerQueueTest, ACallbackMayEmptyTheQueue) {
  std::vector<std::unique_ptr<RunLoopHandle>> timers;
  for (int i = 0; i < 10; ++i) {
    timers.push_back(queue_.add({kStart, ++order_}, 1s, [&] { timers.clear(); }));
  }
  queue_.fireEarliest(kStart);
  EXPECT_TRUE(queue_.empty());
}

TEST(InstantAfterTest, SumsAreLimitedToNowAndTheLargestInstant) {
  EXPECT_EQ(instantAfter(kStart, 1ns), kStart + 1ns);
  EXPECT_EQ(instantAfter(kStart, 0ns), kStart);
  EXPECT_EQ(instantAfter(kStart, -1ns), kStart);
  EXPECT_EQ(instantAfter(kStart, Duration::min()), kStart);
  EXPECT_EQ(instantAfter(kStart, Instant::max() - kStart), Instant::max());
  EXPECT_EQ(instantAfter(kStart, Instant::max() - kStart - 1ns), Instant::max() - 1ns);
  EXPECT_EQ(instantAfter(kStart, Duration::max()), Instant::max());
}

}  // namespace
}  // namespace platform
