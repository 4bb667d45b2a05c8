#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

#include <gtest/gtest.h>

#include "Platform/RunLoops/RunLoop_contract.h"

namespace platform {
namespace {

std::unique_ptr<RunLoop> makeLoop() { return std::make_unique<VirtualRunLoop>(); }

INSTANTIATE_TEST_SUITE_P(Virtual, RunLoopContract, testing::Values(&makeLoop));

using namespace std::chrono_literals;

class VirtualRunLoopTest : public testing::Test {
 protected:
  using Repeat = RunLoop::Repeat;
  using Log = std::vector<std::pair<std::string, Duration>>;

  RunLoop::Callback note(std::string text) {
    return [this, text = std::move(text)] { log_.emplace_back(text, elapsed()); };
  }
  Duration elapsed() const { return loop_.now() - start_; }

  VirtualRunLoop loop_;
  const Instant start_ = loop_.now();
  Log log_;
};

TEST_F(VirtualRunLoopTest, TimePassesOnlyWhenATestSaysSo) {
  const WallTime wallTime = loop_.wallTime();
  loop_.runReady();
  EXPECT_EQ(elapsed(), 0s);
  EXPECT_EQ(loop_.wallTime(), wallTime);
}

TEST_F(VirtualRunLoopTest, EveryLoopStartsAtTheSameTime) {
  const VirtualRunLoop another;
  EXPECT_EQ(another.now(), loop_.now());
  EXPECT_EQ(another.wallTime(), loop_.wallTime());
}

TEST_F(VirtualRunLoopTest, AdvancingRunsOnlyDueCallbacks) {
  const auto timer = loop_.startTimer(2s, Repeat::kOnce, note("timer"));
  loop_.advanceBy(2s - 1ns);
  EXPECT_TRUE(log_.empty());
  loop_.advanceBy(1ns);
  EXPECT_EQ(log_, (Log{{"timer", 2s}}));
}

TEST_F(VirtualRunLoopTest, EachCallbackSeesItsOwnTime) {
  const auto third = loop_.startTimer(3s, Repeat::kOnce, note("3"));
  const auto every = loop_.startTimer(2s, Repeat::kEvery, note("every 2"));
  loop_.advanceBy(5s);
  EXPECT_EQ(log_, (Log{{"every 2", 2s}, {"3", 3s}, {"every 2", 4s}}));
  EXPECT_EQ(elapsed(), 5s);
}

TEST_F(VirtualRunLoopTest, CallbacksOfOneInstantRunInTheOrderOfCreation) {
  std::unique_ptr<RunLoopHandle> added;
  const auto first = loop_.startTimer(1s, Repeat::kOnce, [&] {
    note("first")();
    loop_.post(note("posted by the first"));
    added = loop_.startTimer(0s, Repeat::kOnce, note("added by the first"));
  });
  const auto second = loop_.startTimer(1s, Repeat::kOnce, note("second"));
  loop_.advanceBy(1s);
  EXPECT_EQ(
      log_,
      (Log{
          {"first", 1s}, {"second", 1s}, {"posted by the first", 1s}, {"added by the first", 1s}}));
}

TEST_F(VirtualRunLoopTest, RunJumpsFromTimerToTimerUntilItIsStopped) {
  const auto watchdog = loop_.startTimer(900s, Repeat::kEvery, note("watchdog"));
  const auto stop = loop_.startTimer(1h, Repeat::kOnce, [&] { loop_.stop(); });
  loop_.run();
  EXPECT_EQ(
      log_,
      (Log{{"watchdog", 900s}, {"watchdog", 1800s}, {"watchdog", 2700s}, {"watchdog", 3600s}}));
  EXPECT_EQ(elapsed(), 1h);
}

TEST_F(VirtualRunLoopTest, RunReturnsIfNothingCouldStopIt) {
  TestStream silent;
  const auto source = loop_.watchReadable(silent.descriptor(), Urgency::kOrdinary, note("source"));
  const auto timer = loop_.startTimer(1s, Repeat::kOnce, note("timer"));
  loop_.run();
  EXPECT_EQ(log_, (Log{{"timer", 1s}}));
}

TEST_F(VirtualRunLoopTest, AdvancingContinuesAfterAStop) {
  const auto first = loop_.startTimer(1s, Repeat::kOnce, [&] { loop_.stop(); });
  const auto second = loop_.startTimer(2s, Repeat::kOnce, note("second"));
  loop_.advanceBy(2s);
  EXPECT_EQ(log_.size(), 1);
}

TEST_F(VirtualRunLoopTest, CallbacksDueDuringASleepRunLateButInOrder) {
  const auto second = loop_.startTimer(2s, Repeat::kOnce, note("second"));
  const auto first = loop_.startTimer(1s, Repeat::kOnce, note("first"));
  const auto every = loop_.startTimer(3s, Repeat::kEvery, note("every 3"));
  loop_.post([&] {
    loop_.sleepFor(12s);
    note("slept")();
    loop_.post(note("post"));
  });
  loop_.advanceBy(1s);
  EXPECT_EQ(
      log_,
      (Log{{"slept", 12s}, {"first", 12s}, {"second", 12s}, {"every 3", 12s}, {"post", 12s}}));
  EXPECT_EQ(elapsed(), 12s);
  loop_.advanceBy(3s);
  EXPECT_EQ(log_.back(), std::pair(std::string("every 3"), Duration(15s)));
}

TEST_F(VirtualRunLoopTest, OutsideEventsHappenDuringASleepAtTheirTime) {
  loop_.scheduleOutsideEvent(4s, note("late"));
  loop_.scheduleOutsideEvent(2s, note("event"));
  loop_.scheduleOutsideEvent(2s, note("next event"));
  const auto timer = loop_.startTimer(1s, Repeat::kOnce, note("timer"));
  loop_.sleepFor(3s);
  EXPECT_EQ(log_, (Log{{"event", 2s}, {"next event", 2s}}));
  EXPECT_EQ(elapsed(), 3s);
  loop_.sleepFor(1s);
  EXPECT_EQ(log_.back().first, "late");
  loop_.runReady();
  EXPECT_EQ(log_.back(), std::pair(std::string("timer"), Duration(4s)));
}

TEST_F(VirtualRunLoopTest, AnOutsideEventPrecedesCallbacksOfItsInstant) {
  const auto timer = loop_.startTimer(1s, Repeat::kOnce, note("timer"));
  loop_.scheduleOutsideEvent(1s, [&] {
    loop_.post(note("exit"), Urgency::kProcessExit);
    loop_.scheduleOutsideEvent(0s, note("another event"));
  });
  loop_.scheduleOutsideEvent(-1s, note("event at once"));
  loop_.advanceBy(1s);
  EXPECT_EQ(log_, (Log{{"event at once", 0s}, {"another event", 1s}, {"exit", 1s}, {"timer", 1s}}));
}

TEST_F(VirtualRunLoopTest, OutsideEventsHappenWhileTheLoopRuns) {
  loop_.scheduleOutsideEvent(1h, [&] { loop_.stop(); });
  loop_.run();
  EXPECT_EQ(elapsed(), 1h);
}

TEST_F(VirtualRunLoopTest, AnEventThatTakesTimeSkipsNothing) {
  loop_.scheduleOutsideEvent(0s, [&] {
    loop_.scheduleOutsideEvent(1s, note("inner"));
    loop_.sleepFor(0s);
    loop_.scheduleOutsideEvent(1s, note("later"));
    loop_.sleepFor(500ms);
  });
  loop_.advanceBy(1s);
  EXPECT_EQ(log_, (Log{{"inner", 1s}, {"later", 1s}}));
}

TEST_F(VirtualRunLoopTest, TheWallTimeFollowsTheLoopAndCanBeStepped) {
  const WallTime before = loop_.wallTime();
  loop_.advanceBy(90s);
  EXPECT_EQ(loop_.wallTime() - before, 90s);
  const auto timer = loop_.startTimer(10s, Repeat::kOnce, note("timer"));
  loop_.setWallTime(before - 24h);
  EXPECT_EQ(loop_.wallTime(), before - 24h);
  EXPECT_EQ(elapsed(), 90s);
  loop_.advanceBy(10s);
  EXPECT_EQ(log_.size(), 1);
  EXPECT_EQ(loop_.wallTime(), before - 24h + 10s);
}

TEST_F(VirtualRunLoopTest, ACallbackMayRunTheLoop) {
  loop_.post([&] {
    loop_.post(note("inner"));
    loop_.runReady();
    note("outer")();
  });
  loop_.post(note("next"));
  loop_.runReady();
  EXPECT_EQ(log_, (Log{{"next", 0s}, {"inner", 0s}, {"outer", 0s}}));
}

TEST_F(VirtualRunLoopTest, TimeDoesNotPassWhileASourceIsReadable) {
  TestStream stream;
  stream.write(3);
  const auto timer = loop_.startTimer(1s, Repeat::kOnce, note("timer"));
  const auto source = loop_.watchReadable(stream.descriptor(), Urgency::kOrdinary, [&] {
    stream.read(1);
    note("source")();
  });
  loop_.advanceBy(1s);
  EXPECT_EQ(log_, (Log{{"source", 0s}, {"source", 0s}, {"source", 0s}, {"timer", 1s}}));
}

TEST_F(VirtualRunLoopTest, SourcesAreCalledInTurn) {
  TestStream streams[3];
  std::vector<std::unique_ptr<RunLoopHandle>> sources;
  for (int i = 0; i < 3; ++i) {
    streams[i].write(2);
    auto source = loop_.watchReadable(streams[i].descriptor(), Urgency::kOrdinary, [&, i] {
      streams[i].read(1);
      note(std::to_string(i))();
    });
    sources.push_back(std::move(*source));
  }
  loop_.runReady();
  ASSERT_EQ(log_.size(), 6);
  for (std::size_t i = 0; i < 6; ++i) EXPECT_EQ(log_[i].first, std::to_string(i % 3));
}

TEST_F(VirtualRunLoopTest, AWaitEndsWithItsOutsideEvent) {
  bool answered = false;
  const auto timer = loop_.startTimer(1s, Repeat::kOnce, note("timer"));
  loop_.scheduleOutsideEvent(1s, [] {});
  loop_.scheduleOutsideEvent(2s, [&] { answered = true; });
  const Instant before = loop_.now();
  EXPECT_TRUE(loop_.waitFor(5s, [&] { return answered; }));
  EXPECT_EQ(loop_.now() - before, 2s);
  EXPECT_TRUE(log_.empty());
  EXPECT_FALSE(loop_.waitFor(5s, [] { return false; }));
  EXPECT_EQ(loop_.now() - before, 7s);
}

}  // namespace
}  // namespace platform
