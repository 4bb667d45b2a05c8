#pragma once

// Contract of timers.

#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/RunLoops/RunLoopFixture_contract.h"

namespace platform {

TEST_P(RunLoopContract, TimersRunInTheOrderOfTheirTimes) {
  const auto third = loop_->startTimer(3ms, Repeat::kOnce, note("3"));
  const auto first = loop_->startTimer(1ms, Repeat::kOnce, note("1"));
  const auto second = loop_->startTimer(2ms, Repeat::kOnce, note("2"));
  runFor(4ms);
  EXPECT_EQ(log_, (Log{"1", "2", "3"}));
}

TEST_P(RunLoopContract, OverdueTimersKeepTheirOrder) {
  const auto second = loop_->startTimer(2ms, Repeat::kOnce, note("2 ms"));
  const auto first = loop_->startTimer(1ms, Repeat::kOnce, note("1 ms"));
  const auto zero = loop_->startTimer(0ms, Repeat::kOnce, note("0 ms"));
  loop_->sleepFor(3ms);
  runFor(1ms);
  EXPECT_EQ(log_, (Log{"0 ms", "1 ms", "2 ms"}));
}

TEST_P(RunLoopContract, ATimerIsNeverEarly) {
  const Instant start = loop_->now();
  std::optional<Instant> fired;
  const auto timer = loop_->startTimer(1'234'567ns, Repeat::kOnce, [&] { fired = loop_->now(); });
  runFor(3ms);
  ASSERT_TRUE(fired);
  EXPECT_GE(*fired - start, 1'234'567ns);
}

TEST_P(RunLoopContract, ZeroAndNegativeDelaysRunAtOnceInOrder) {
  const auto zero = loop_->startTimer(0s, Repeat::kOnce, note("zero"));
  const auto negative = loop_->startTimer(-1h, Repeat::kOnce, note("negative"));
  const auto least = loop_->startTimer(Duration::min(), Repeat::kOnce, note("least"));
  runFor(1ms);
  EXPECT_EQ(log_, (Log{"zero", "negative", "least"}));
}

TEST_P(RunLoopContract, AnOverflowingDelayNeverEnds) {
  const auto timer = loop_->startTimer(Duration::max(), Repeat::kOnce, note("timer"));
  const auto repeating = loop_->startTimer(Duration::max(), Repeat::kEvery, note("timer"));
  runFor(1ms);
  EXPECT_TRUE(log_.empty());
}

TEST_P(RunLoopContract, ATimerFiresOnceAndItsHandleMayBeKept) {
  const auto timer = loop_->startTimer(0s, Repeat::kOnce, note("timer"));
  runFor(1ms);
  runFor(1ms);
  EXPECT_EQ(log_, Log{"timer"});
}

TEST_P(RunLoopContract, ADestroyedTimerDoesNotFire) {
  auto timer = loop_->startTimer(0s, Repeat::kOnce, note("timer"));
  timer.reset();
  runFor(1ms);
  EXPECT_TRUE(log_.empty());
}

TEST_P(RunLoopContract, ATimerDestroyedAfterItFellDueDoesNotFire) {
  auto timer = loop_->startTimer(1ms, Repeat::kOnce, note("timer"));
  loop_->post([&] {
    loop_->sleepFor(2ms);
    timer.reset();
  });
  runFor(3ms);
  EXPECT_TRUE(log_.empty());
}

TEST_P(RunLoopContract, ATimersCallbackMayDestroyIt) {
  for (const Repeat repeat : {Repeat::kOnce, Repeat::kEvery}) {
    std::unique_ptr<RunLoopHandle> timer;
    const auto held = std::make_shared<int>(7);  // Owned by the callback and this test.
    timer = loop_->startTimer(1ms, repeat, [this, &timer, held] {
      timer.reset();
      log_.push_back(std::to_string(*held));
    });
    runFor(4ms);
    EXPECT_EQ(log_, Log{"7"});
    EXPECT_EQ(held.use_count(), 1) << "the callback was kept";
    log_.clear();
  }
}

TEST_P(RunLoopContract, ACallbackMayDestroyAnotherTimerThatIsDue) {
  std::unique_ptr<RunLoopHandle> second;
  const auto first = loop_->startTimer(0s, Repeat::kOnce, [&] { second.reset(); });
  second = loop_->startTimer(0s, Repeat::kOnce, note("second"));
  const auto third = loop_->startTimer(0s, Repeat::kOnce, note("third"));
  loop_->sleepFor(1ms);
  runFor(1ms);
  EXPECT_EQ(log_, Log{"third"});
}

TEST_P(RunLoopContract, ACallbackIsReleasedWhenItsTimerHasFired) {
  const auto held = std::make_shared<int>();  // Owned by the callback and this test.
  const auto timer = loop_->startTimer(0s, Repeat::kOnce, [held] {});
  EXPECT_EQ(held.use_count(), 2);
  runFor(1ms);
  EXPECT_EQ(held.use_count(), 1);
}

TEST_P(RunLoopContract, ARepeatingTimerKeepsToItsPeriods) {
  const Instant start = loop_->now();
  std::vector<Duration> fired;
  const auto timer = loop_->startTimer(2ms, Repeat::kEvery, [&] {
    fired.push_back(loop_->now() - start);
    loop_->sleepFor(500us);  // The delays must not add up.
    if (fired.size() == 5) loop_->stop();
  });
  runToStop();
  ASSERT_EQ(fired.size(), 5);
  for (std::size_t i = 0; i < fired.size(); ++i) EXPECT_GE(fired[i], 2ms * (i + 1));
}

TEST_P(RunLoopContract, OneCallMakesUpForMissedPeriods) {
  const Instant start = loop_->now();
  std::vector<Duration> fired;
  const auto timer = loop_->startTimer(20ms, Repeat::kEvery, [&] {
    fired.push_back(loop_->now() - start);
    if (fired.size() == 1) loop_->sleepFor(65ms);  // Past the ends of the second to fourth.
    if (fired.size() == 3) loop_->stop();
  });
  runToStop();
  ASSERT_EQ(fired.size(), 3);
  EXPECT_GE(fired[1], 85ms);
  // The periods are still counted from the start.
  EXPECT_GE(fired[2], 100ms);
}

// A timer that the loop reaches late has missed the periods until then.
TEST_P(RunLoopContract, OneCallMakesUpForPeriodsThatAnotherTimerDelayed) {
  const Instant start = loop_->now();
  const auto slow = loop_->startTimer(19ms, Repeat::kOnce, [&] { loop_->sleepFor(30ms); });
  std::vector<Duration> fired;
  const auto timer = loop_->startTimer(20ms, Repeat::kEvery, [&] {
    fired.push_back(loop_->now() - start);
    if (fired.size() == 2) loop_->stop();
  });
  loop_->sleepFor(20ms);  // Both are due in the same turn.
  runToStop();
  ASSERT_EQ(fired.size(), 2);
  EXPECT_GE(fired[0], 50ms);
  EXPECT_GE(fired[1], 60ms);
}

TEST_P(RunLoopContract, SuccessiveTimersWithoutDelayDoNotStarveOthers) {
  TestStream stream;
  bool postRan = false;
  bool sourceRan = false;
  int timersRun = 0;
  std::unique_ptr<RunLoopHandle> timer;
  std::function<void()> again = [&] {
    if (postRan && sourceRan) return loop_->stop();
    if (++timersRun == 3) {
      loop_->post([&] { postRan = true; });
      stream.write(1);
    }
    timer = loop_->startTimer(0s, Repeat::kOnce, [&] { again(); });
  };
  again();
  const auto source = watch(stream, Urgency::kOrdinary, [&] {
    sourceRan = true;
    stream.read(1);
  });
  runToStop();
  EXPECT_TRUE(postRan && sourceRan);
}

}  // namespace platform
