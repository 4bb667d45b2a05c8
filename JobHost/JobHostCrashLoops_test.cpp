// Jobs that end soon after each start, and many jobs that end at once.

#include <algorithm>
#include <cerrno>
#include <chrono>
#include <csignal>
#include <cstddef>
#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include <gmock/gmock.h>

#include "JobHost/JobHostFixture_contract.h"
#include "Platform/Logging/LogMessageIds.h"

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::Dictionary;
using platform::Duration;
using platform::Value;
using testing::ElementsAre;

class JobHostCrashLoops : public JobHostTest {
 protected:
  static constexpr int kMany = 100;

  static Dictionary unthrottled(const std::string& label) {
    return job(label, {{"ThrottleInterval", 0}});
  }
  static std::string nameOf(int number) { return "com.example." + std::to_string(1000 + number); }

  // How long after its last process's end the job is started again.
  Duration pauseAfterEnd() {
    const std::size_t before = starts();
    const platform::Instant end = loop_.now();
    endLast();
    while (starts() == before && loop_.now() < end + 1h) loop_.advanceBy(1ms);
    return processes_.started.back().at - end;
  }

  // Many jobs that have had a good run.
  void submitMany() {
    for (int i = 0; i < kMany; ++i) ASSERT_TRUE(submit(unthrottled(nameOf(i))));
    loop_.advanceBy(1s);
  }
  void endMany() {
    for (int i = 0; i < kMany; ++i) processes_.end(101 + i);
  }
};

TEST_F(JobHostCrashLoops, WithoutAThrottleAGoodRunIsRestartedAtOnce) {
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  for (int i = 0; i < 20; ++i) {
    loop_.advanceBy(kGoodRun);
    EXPECT_EQ(pauseAfterEnd(), 0s);
  }
}

TEST_F(JobHostCrashLoops, WithoutAThrottleShortRunsAreFollowedByGrowingPauses) {
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  std::vector<Duration> pauses;
  for (int i = 0; i < 10; ++i) {
    loop_.advanceBy(kGoodRun - 1ns);
    pauses.push_back(pauseAfterEnd());
  }
  EXPECT_THAT(pauses, ElementsAre(0ms, 10ms, 20ms, 40ms, 80ms, 160ms, 320ms, 640ms, 1s, 1s));
}

TEST_F(JobHostCrashLoops, AGoodRunEndsThePauses) {
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  for (int i = 0; i < 20; ++i) pauseAfterEnd();
  EXPECT_EQ(pauseAfterEnd(), 1s);
  loop_.advanceBy(kGoodRun);
  EXPECT_EQ(pauseAfterEnd(), 0s);
  EXPECT_EQ(pauseAfterEnd(), 0s);
  EXPECT_EQ(pauseAfterEnd(), 10ms);
}

TEST_F(JobHostCrashLoops, SubmittingTheJobAgainDoesNotBypassThePause) {
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  for (int i = 0; i < 20; ++i) pauseAfterEnd();
  endLast();
  const std::size_t before = starts();
  for (int i = 0; i < 9; ++i) {
    loop_.advanceBy(100ms);
    ASSERT_TRUE(submit(unthrottled("com.example.a")));
  }
  EXPECT_EQ(starts(), before);
  loop_.advanceBy(100ms);
  EXPECT_EQ(starts(), before + 1);
}

TEST_F(JobHostCrashLoops, ATurnOfTheLoopStartsOneProcess) {
  submitMany();
  std::vector<std::size_t> startsPerTurn;
  std::function<void()> turn = [&] {
    startsPerTurn.push_back(starts());
    if (starts() < 2 * kMany) loop_.post([&] { turn(); });
  };
  loop_.post([&] { turn(); });
  endMany();
  loop_.runReady();
  ASSERT_EQ(starts(), 2 * kMany);
  for (std::size_t i = 1; i < startsPerTurn.size(); ++i) {
    EXPECT_LE(startsPerTurn[i] - startsPerTurn[i - 1], 1u);
  }
}

TEST_F(JobHostCrashLoops, JobsAreStartedInTheOrderInWhichTheyFellDue) {
  submitMany();
  for (int i = kMany - 1; i >= 0; --i) processes_.end(101 + i);
  loop_.runReady();
  ASSERT_EQ(starts(), 2 * kMany);
  for (int i = 0; i < kMany; ++i) {
    EXPECT_EQ(processes_.started[kMany + i].label, nameOf(kMany - 1 - i));
  }
}

TEST_F(JobHostCrashLoops, ThrottlesThatEndTogetherStartOneProcessInATurn) {
  for (int i = 0; i < kMany; ++i) ASSERT_TRUE(submit(job(nameOf(i))));
  endMany();
  std::size_t before = 0;
  const auto later = loop_.startTimer(10s, platform::RunLoop::Repeat::kOnce,
                                      [&] { loop_.post([&] { before = starts(); }); });
  loop_.advanceBy(10s);
  EXPECT_LE(before, static_cast<std::size_t>(kMany) + 1);
  EXPECT_EQ(starts(), 2 * kMany);
}

TEST_F(JobHostCrashLoops, AStopRequestComesBeforeTheStartsThatAreDue) {
  submitMany();
  bool hasEnded = false;
  endMany();
  loop_.post([&] { host_->shutDown([&] { hasEnded = true; }); });
  loop_.runReady();
  EXPECT_TRUE(hasEnded);
  EXPECT_LE(starts(), static_cast<std::size_t>(kMany) + 1);
}

TEST_F(JobHostCrashLoops, ACopyStartsAProcessThatIsDue) {
  submitMany();
  endMany();
  Value seen;
  loop_.post([&] { seen = host_->copy(nameOf(kMany - 1)); });
  loop_.runReady();
  EXPECT_FALSE(seen["PID"].isNil());
  EXPECT_EQ(starts(), 2 * kMany);  // and each only once
}

TEST_F(JobHostCrashLoops, ARemovedJobIsNotStartedInItsTurn) {
  submitMany();
  endMany();
  bool isRemoved = false;
  loop_.post([&] { host_->remove(nameOf(kMany - 1), [&](auto) { isRemoved = true; }); });
  loop_.runReady();
  EXPECT_TRUE(isRemoved);
  EXPECT_EQ(starts(), 2 * kMany - 1);
}

TEST_F(JobHostCrashLoops, AHealthyJobIsBackInItsTurnAmongCrashLoops) {
  for (int i = 0; i < kMany; ++i) ASSERT_TRUE(submit(unthrottled(nameOf(i))));
  ASSERT_TRUE(submit(unthrottled("com.example.healthy")));
  const platform::ProcessId healthy = processes_.started.back().process;
  // Each process of a crash loop ends as soon as it is started.
  const auto crash = loop_.startTimer(1ms, platform::RunLoop::Repeat::kEvery, [&] {
    for (const auto& started : std::vector(processes_.started)) {
      if (started.process != healthy && started.label != "com.example.healthy" &&
          processes_.isAlive(started.process)) {
        processes_.end(started.process);
      }
    }
  });
  loop_.advanceBy(10s);
  const std::size_t before = starts();
  loop_.advanceBy(10s);
  EXPECT_LE(starts() - before, 10u * kMany);  // once a second each
  processes_.end(healthy);
  loop_.runReady();
  EXPECT_FALSE(pid("com.example.healthy").isNil());
  EXPECT_NE(pid("com.example.healthy"), Value(healthy));
}

TEST_F(JobHostCrashLoops, StartsEndsAndCrashesAreCounted) {
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  const platform::WallTime since = loop_.wallTime();
  loop_.advanceBy(5s);
  endLast(kSegmentationFault);
  loop_.advanceBy(3s);
  endLast();
  const platform::JobHistory counted = history("com.example.a");
  EXPECT_EQ(counted.since, since);
  EXPECT_EQ(counted.starts, 3);
  EXPECT_EQ(counted.ends, 2);
  EXPECT_EQ(counted.crashes, 1);
  EXPECT_THAT(counted.lastEnds, ElementsAre(platform::JobHistory::End{since + 5s, SIGSEGV, 5s},
                                            platform::JobHistory::End{since + 8s, 0, 3s}));
}

TEST_F(JobHostCrashLoops, StartsAndEndsAreEventsOfTheLog) {
  using Event = platform::FakeLogSink::Event;
  ASSERT_TRUE(submit(
      job("com.example.a", {{"ThrottleInterval", 0}, {"KeepAlive", false}, {"RunAtLoad", true}})));
  endLast();
  ASSERT_TRUE(submit(unthrottled("com.example.b")));
  endLast(kSegmentationFault);
  ASSERT_TRUE(removeLater("com.example.b")->value());
  EXPECT_THAT(sink_.events(), ElementsAre(Event{platform::kServiceStartedId, "com.example.a", 101},
                                          Event{platform::kServiceEndedId, "com.example.a", 101},
                                          Event{platform::kServiceStartedId, "com.example.b", 102},
                                          Event{platform::kServiceCrashedId, "com.example.b", 102},
                                          Event{platform::kServiceStartedId, "com.example.b", 103},
                                          Event{platform::kServiceEndedId, "com.example.b", 103}));
}

TEST_F(JobHostCrashLoops, ACrashLoopIsLoggedOnce) {
  const auto loops = [this] {
    return std::ranges::count(sink_.events(), std::string_view(platform::kCrashLoopId),
                              [](const auto& event) { return event.messageId; });
  };
  ASSERT_TRUE(submit(job("com.example.a")));
  const auto crash = [this](Duration ran) {
    loop_.advanceBy(ran);
    const std::size_t before = starts();
    endLast(kSegmentationFault);
    for (int i = 0; i < 10 && starts() == before; ++i) loop_.advanceBy(1s);
  };
  crash(0s);
  crash(0s);
  EXPECT_EQ(loops(), 0);
  crash(0s);
  EXPECT_EQ(loops(), 1);
  for (int i = 0; i < 20; ++i) crash(0s);
  EXPECT_EQ(loops(), 1);
  // A long run ends it.
  crash(kCrashLoopRun);
  crash(0s);
  crash(0s);
  EXPECT_EQ(loops(), 1);
  crash(0s);
  EXPECT_EQ(loops(), 2);
}

TEST_F(JobHostCrashLoops, AFailedStartIsAnEventOfTheLog) {
  using Event = platform::FakeLogSink::Event;
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  processes_.failure = platform::Error{platform::ErrorCode::kSystem, ENOENT, "executing"};
  endLast();
  EXPECT_EQ(sink_.events().back(), (Event{platform::kStartFailedId, "com.example.a", 0}));
  processes_.failure = platform::Error{platform::ErrorCode::kChanged, 0, "another program"};
  loop_.advanceBy(10s);
  EXPECT_EQ(sink_.events().back(), (Event{platform::kProgramDamagedId, "com.example.a", 0}));
}

TEST_F(JobHostCrashLoops, TheCountsOutliveARemovalWhichIsNoCrash) {
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  endLast(kSegmentationFault);
  ASSERT_TRUE(removeLater("com.example.a")->value());
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  const platform::JobHistory counted = history("com.example.a");
  EXPECT_EQ(counted.starts, 3);
  EXPECT_EQ(counted.ends, 2);
  EXPECT_EQ(counted.crashes, 1);
}

TEST_F(JobHostCrashLoops, TheNextHostBeginsToCountAtZero) {
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  endLast(kSegmentationFault);
  loop_.advanceBy(1h);
  restartHost();
  EXPECT_EQ(history("com.example.a").since, loop_.wallTime());
  loop_.advanceBy(1h);
  endLast();
  const platform::JobHistory counted = history("com.example.a");
  EXPECT_EQ(counted.starts, 1);
  EXPECT_EQ(counted.ends, 1);
  EXPECT_EQ(counted.crashes, 0);
  ASSERT_EQ(counted.lastEnds.size(), 1u);
  EXPECT_FALSE(counted.lastEnds[0].waitStatus);
  EXPECT_EQ(counted.lastEnds[0].ran, 2h);
}

TEST_F(JobHostCrashLoops, AFirstStartThatFailsIsNotCounted) {
  processes_.failure = platform::Error{platform::ErrorCode::kSystem, ENOENT, "executing"};
  EXPECT_FALSE(submit(unthrottled("com.example.a")));
  processes_.failure.reset();
  loop_.advanceBy(1h);
  ASSERT_TRUE(submit(unthrottled("com.example.a")));
  EXPECT_EQ(history("com.example.a").starts, 1);
  EXPECT_EQ(history("com.example.a").since, loop_.wallTime());
}

}  // namespace
}  // namespace jobhost
