#include "ServiceManager/ServiceManager/EvaluationTimers.h"

#include <optional>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace {

using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class EvaluationTimersTest : public testing::Test {
 protected:
  EvaluationTimers::Callback note(const char* name) {
    return [this, name] { calls_.push_back(name); };
  }
  std::vector<std::string> take() { return std::exchange(calls_, {}); }

  platform::VirtualRunLoop loop_;
  std::vector<std::string> calls_;
  std::optional<EvaluationTimers> timers_{std::in_place, loop_};
};

TEST_F(EvaluationTimersTest, AtFirstThereIsNoTimer) {
  EXPECT_FALSE(timers_->watchDog());
  EXPECT_FALSE(timers_->globalSettingsDidChangeEffectTimer());
  EXPECT_FALSE(timers_->reevaluationTimer());
  EXPECT_EQ(timers_->untilWatchDog(), std::nullopt);
  EXPECT_EQ(timers_->untilSettingsEvaluation(), std::nullopt);
  EXPECT_EQ(timers_->untilReevaluation(), std::nullopt);
  EXPECT_EQ(timers_->untilShutdown("agent"), std::nullopt);
}

// The watchdog.

TEST_F(EvaluationTimersTest, TheWatchdogCallsEveryQuarterOfAnHour) {
  timers_->startWatchDog(note("watchdog"));
  EXPECT_TRUE(timers_->watchDog());
  loop_.advanceBy(15min - 1ns);
  EXPECT_THAT(take(), IsEmpty());
  loop_.advanceBy(1ns);
  EXPECT_THAT(take(), ElementsAre("watchdog"));
  loop_.advanceBy(30min);
  EXPECT_THAT(take(), ElementsAre("watchdog", "watchdog"));
  EXPECT_TRUE(timers_->watchDog());
}

TEST_F(EvaluationTimersTest, TheTimeUntilTheWatchdogRestartsAtEachCall) {
  timers_->startWatchDog(note("watchdog"));
  EXPECT_EQ(timers_->untilWatchDog(), 15min);
  loop_.advanceBy(1min);
  EXPECT_EQ(timers_->untilWatchDog(), 14min);
  loop_.advanceBy(14min - 1ns);
  EXPECT_EQ(timers_->untilWatchDog(), 1ns);
  loop_.advanceBy(1ns);
  EXPECT_EQ(timers_->untilWatchDog(), 15min);
  loop_.advanceBy(31min);
  EXPECT_EQ(timers_->untilWatchDog(), 14min);
}

// The timer of a change of the settings.

TEST_F(EvaluationTimersTest, ASettingsChangeCallsOnceAfterTwoSeconds) {
  timers_->startSettingsChangeTimer(note("settings"));
  EXPECT_TRUE(timers_->globalSettingsDidChangeEffectTimer());
  EXPECT_EQ(timers_->untilSettingsEvaluation(), 2s);
  loop_.advanceBy(2s - 1ns);
  EXPECT_EQ(timers_->untilSettingsEvaluation(), 1ns);
  EXPECT_THAT(take(), IsEmpty());
  loop_.advanceBy(1ns);
  EXPECT_THAT(take(), ElementsAre("settings"));
  loop_.advanceBy(1min);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(EvaluationTimersTest, AFiredTimerStaysUntilItIsCancelled) {
  timers_->startSettingsChangeTimer(note("settings"));
  loop_.advanceBy(3s);
  EXPECT_TRUE(timers_->globalSettingsDidChangeEffectTimer());
  EXPECT_EQ(timers_->untilSettingsEvaluation(), -1s);
  timers_->cancelSettingsChangeTimer();
  EXPECT_FALSE(timers_->globalSettingsDidChangeEffectTimer());
  EXPECT_EQ(timers_->untilSettingsEvaluation(), std::nullopt);
}

TEST_F(EvaluationTimersTest, ACancelledSettingsTimerDoesNotCall) {
  timers_->cancelSettingsChangeTimer();
  timers_->startSettingsChangeTimer(note("first"));
  loop_.advanceBy(1s);
  timers_->cancelSettingsChangeTimer();
  timers_->startSettingsChangeTimer(note("second"));
  loop_.advanceBy(2s - 1ns);
  EXPECT_THAT(take(), IsEmpty());
  loop_.advanceBy(1min);
  EXPECT_THAT(take(), ElementsAre("second"));
}

// The timer of services that are not ready.

TEST_F(EvaluationTimersTest, AReevaluationCallsOnceAfterTwentySeconds) {
  timers_->startReevaluationTimer(note("again"));
  EXPECT_TRUE(timers_->reevaluationTimer());
  EXPECT_EQ(timers_->untilReevaluation(), 20s);
  loop_.advanceBy(20s - 1ns);
  EXPECT_THAT(take(), IsEmpty());
  loop_.advanceBy(1ns);
  EXPECT_THAT(take(), ElementsAre("again"));
  EXPECT_EQ(timers_->untilReevaluation(), 0s);
  loop_.advanceBy(1min);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(EvaluationTimersTest, ACancelledReevaluationDoesNotCall) {
  timers_->startReevaluationTimer(note("again"));
  timers_->cancelReevaluationTimer();
  EXPECT_FALSE(timers_->reevaluationTimer());
  EXPECT_EQ(timers_->untilReevaluation(), std::nullopt);
  loop_.advanceBy(1min);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(EvaluationTimersTest, AReevaluationMayStartTheNextOne) {
  timers_->startReevaluationTimer([this] {
    calls_.push_back("first");
    timers_->cancelReevaluationTimer();
    timers_->startReevaluationTimer(note("second"));
  });
  loop_.advanceBy(40s - 1ns);
  EXPECT_THAT(take(), ElementsAre("first"));
  loop_.advanceBy(1ns);
  EXPECT_THAT(take(), ElementsAre("second"));
}

// Pending shut-downs.

TEST_F(EvaluationTimersTest, AShutdownCallsOnceAfterThreeSeconds) {
  timers_->shutDownLater("agent", note("agent"));
  EXPECT_EQ(timers_->untilShutdown("agent"), 3s);
  EXPECT_EQ(timers_->untilShutdown("age"), std::nullopt);
  EXPECT_EQ(timers_->untilShutdown("agent2"), std::nullopt);
  loop_.advanceBy(3s - 1ns);
  EXPECT_EQ(timers_->untilShutdown("agent"), 1ns);
  EXPECT_THAT(take(), IsEmpty());
  loop_.advanceBy(1ns);
  EXPECT_THAT(take(), ElementsAre("agent"));
  EXPECT_EQ(timers_->untilShutdown("agent"), std::nullopt);
  loop_.advanceBy(1min);
  EXPECT_THAT(take(), IsEmpty());
}

TEST_F(EvaluationTimersTest, APendingShutdownOfAServiceIsKept) {
  timers_->shutDownLater("agent", note("first"));
  loop_.advanceBy(1s);
  timers_->shutDownLater("helper", note("helper"));
  timers_->shutDownLater("agent", note("second"));
  EXPECT_EQ(timers_->untilShutdown("agent"), 2s);
  EXPECT_EQ(timers_->untilShutdown("helper"), 3s);
  loop_.advanceBy(2s);
  EXPECT_THAT(take(), ElementsAre("first"));
  EXPECT_EQ(timers_->untilShutdown("agent"), std::nullopt);
  loop_.advanceBy(1s);
  EXPECT_THAT(take(), ElementsAre("helper"));
}

TEST_F(EvaluationTimersTest, AShutdownThatCallsIsNotDueAnyMore) {
  timers_->shutDownLater("agent", [this] {
    EXPECT_EQ(timers_->untilShutdown("agent"), std::nullopt);
    timers_->shutDownLater("agent", note("next"));
  });
  loop_.advanceBy(3s);
  EXPECT_EQ(timers_->untilShutdown("agent"), 3s);
  loop_.advanceBy(3s);
  EXPECT_THAT(take(), ElementsAre("next"));
}

TEST_F(EvaluationTimersTest, DelayedCallsComeInTheOrderOfTheirTimes) {
  timers_->performAfterDelay({"late"}, 2s, note("late"));
  timers_->performAfterDelay({"evaluate", "agent"}, 1s, note("first"));
  timers_->performAfterDelay({"evaluate", "helper"}, 1s, note("second"));
  timers_->performAfterDelay({"at once"}, 0s, note("at once"));
  EXPECT_THAT(take(), IsEmpty());
  loop_.advanceBy(1s);
  EXPECT_THAT(take(), ElementsAre("at once", "first", "second"));
  loop_.advanceBy(1s);
  EXPECT_THAT(take(), ElementsAre("late"));
}

TEST_F(EvaluationTimersTest, EachStartAndCancellationIsReported) {
  timers_.emplace(loop_, note("changed"));
  const auto expectOneReport = [this] { EXPECT_THAT(take(), ElementsAre("changed")); };
  timers_->startWatchDog([] {});
  expectOneReport();
  timers_->startSettingsChangeTimer([] {});
  expectOneReport();
  timers_->cancelSettingsChangeTimer();
  expectOneReport();
  timers_->startReevaluationTimer([] {});
  expectOneReport();
  timers_->cancelReevaluationTimer();
  expectOneReport();
  timers_->shutDownLater("agent", [] {});
  expectOneReport();
  timers_->performAfterDelay({"delayed"}, 1s, [] {});
  expectOneReport();
}

TEST_F(EvaluationTimersTest, PendingCallsEndWithTheirOwner) {
  timers_->startWatchDog(note("watchdog"));
  timers_->startSettingsChangeTimer(note("settings"));
  timers_->startReevaluationTimer(note("again"));
  timers_->shutDownLater("agent", note("agent"));
  timers_->performAfterDelay({"delayed"}, 1s, note("delayed"));
  timers_.reset();
  loop_.advanceBy(1h);
  EXPECT_THAT(take(), IsEmpty());
}

}  // namespace
