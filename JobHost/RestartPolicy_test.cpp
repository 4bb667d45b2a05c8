#include "JobHost/RestartPolicy.h"

#include <csignal>
#include <limits>
#include <vector>

#include <gtest/gtest.h>

namespace jobhost {
namespace {

using namespace std::chrono_literals;
using platform::ExitStatus;
using platform::Instant;

constexpr Ending kSuccess = ExitStatus{ExitStatus::Kind::kExited, 0};
constexpr Ending kFailure = ExitStatus{ExitStatus::Kind::kExited, 1};
constexpr Ending kCrash = ExitStatus{ExitStatus::Kind::kSignalled, SIGSEGV};
constexpr Ending kTerminated = ExitStatus{ExitStatus::Kind::kSignalled, SIGTERM};
constexpr Ending kKilled = ExitStatus{ExitStatus::Kind::kSignalled, SIGKILL};
constexpr Ending kUnknown = std::nullopt;

RestartRules rulesOf(KeepAlive keepAlive, bool runAtLoad = false,
                     platform::Duration throttle = 10s) {
  return {keepAlive, runAtLoad, throttle};
}

TEST(RestartPolicy, RunAtLoadAndKeepAliveWantAProcessAtOnce) {
  EXPECT_FALSE(wantsProcessAtLoad(rulesOf({})));
  EXPECT_TRUE(wantsProcessAtLoad(rulesOf({}, true)));
  EXPECT_TRUE(wantsProcessAtLoad(rulesOf({true, {}, {}})));
  EXPECT_TRUE(wantsProcessAtLoad(rulesOf({false, true, {}})));
  EXPECT_TRUE(wantsProcessAtLoad(rulesOf({false, false, {}})));
  EXPECT_TRUE(wantsProcessAtLoad(rulesOf({false, {}, true})));
  EXPECT_TRUE(wantsProcessAtLoad(rulesOf({false, {}, false})));
}

TEST(RestartPolicy, KeepAliveDecidesByTheEnd) {
  struct Row {
    KeepAlive keepAlive;
    bool success, failure, crash, terminated, unknown;
  };
  // always, SuccessfulExit, Crashed.
  const Row rows[] = {
      {{}, false, false, false, false, false},
      {{true, {}, {}}, true, true, true, true, true},
      {{false, true, {}}, true, false, false, false, false},
      {{false, false, {}}, false, true, true, true, true},
      {{false, {}, true}, false, false, true, false, true},
      {{false, {}, false}, true, true, false, true, true},
      // Each condition suffices.
      {{false, true, true}, true, false, true, false, true},
      {{false, false, false}, true, true, true, true, true},
  };
  for (const Row& row : rows) {
    const RestartRules rules = rulesOf(row.keepAlive);
    SCOPED_TRACE(testing::Message() << "row " << (&row - rows));
    EXPECT_EQ(wantsProcessAfter(rules, kSuccess), row.success);
    EXPECT_EQ(wantsProcessAfter(rules, kFailure), row.failure);
    EXPECT_EQ(wantsProcessAfter(rules, kCrash), row.crash);
    EXPECT_EQ(wantsProcessAfter(rules, kTerminated), row.terminated);
    EXPECT_EQ(wantsProcessAfter(rules, kKilled), row.terminated);
    EXPECT_EQ(wantsProcessAfter(rules, kUnknown), row.unknown);
  }
}

TEST(RestartPolicy, RunAtLoadAloneWantsOneProcess) {
  for (const Ending& ending : {kSuccess, kFailure, kCrash, kUnknown}) {
    EXPECT_FALSE(wantsProcessAfter(rulesOf({}, true), ending));
  }
}

TEST(RestartPolicy, TheSignalsOfFaultsAreCrashes) {
  for (const int signal : {SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS}) {
    EXPECT_TRUE(isCrash(signal)) << signal;
  }
  for (const int signal : {SIGHUP, SIGINT, SIGQUIT, SIGKILL, SIGTERM, SIGPIPE, SIGUSR1}) {
    EXPECT_FALSE(isCrash(signal)) << signal;
  }
}

TEST(RestartPolicy, StartsAreOneThrottleIntervalApart) {
  const Instant start(1h);
  EXPECT_EQ(earliestStart(rulesOf({}, false, 10s), std::nullopt), Instant::min());
  EXPECT_EQ(earliestStart(rulesOf({}, false, 10s), start), start + 10s);
  EXPECT_EQ(earliestStart(rulesOf({}, false, 0s), start), start);
  EXPECT_EQ(earliestStart(rulesOf({}, false, platform::Duration::max()), start), Instant::max());
}

TEST(RestartPolicy, ThePauseGrowsWithShortRunsUpToASecond) {
  const platform::Duration pauses[] = {0ms,   0ms,   10ms,  20ms, 40ms, 80ms,
                                       160ms, 320ms, 640ms, 1s,   1s};
  for (unsigned runs = 0; runs < std::size(pauses); ++runs) {
    EXPECT_EQ(pauseAfterShortRuns(runs), pauses[runs]) << runs;
  }
  EXPECT_EQ(pauseAfterShortRuns(std::numeric_limits<unsigned>::max()), 1s);
}

TEST(RestartPolicy, AFailedStartIsNotRetriedWithinASecond) {
  const Instant start(1h);
  EXPECT_EQ(earliestRetry(rulesOf({}, false, 0s), start), start + 1s);
  EXPECT_EQ(earliestRetry(rulesOf({}, false, 1s), start), start + 1s);
  EXPECT_EQ(earliestRetry(rulesOf({}, false, 2s), start), start + 2s);
}

TEST(RestartPolicy, TheNextActionFollowsFromPhaseAndEvent) {
  using enum JobAction;
  struct Row {
    JobPhase phase;
    JobEvent event;
    // A start is wanted and allowed, only wanted, only allowed.
    JobAction start, wait, idle;
  };
  const Row rows[] = {
      {JobPhase::kIdle, JobEvent::kSubmitted, kStart, kWait, kBecomeIdle},
      {JobPhase::kIdle, JobEvent::kProcessEnded, kStart, kWait, kBecomeIdle},
      {JobPhase::kIdle, JobEvent::kDemanded, kStart, kWait, kStart},
      {JobPhase::kIdle, JobEvent::kDue, kNothing, kNothing, kNothing},
      {JobPhase::kIdle, JobEvent::kStartFailed, kRetry, kRetry, kRetry},
      {JobPhase::kWaiting, JobEvent::kSubmitted, kStart, kWait, kBecomeIdle},
      {JobPhase::kWaiting, JobEvent::kProcessEnded, kStart, kWait, kBecomeIdle},
      {JobPhase::kWaiting, JobEvent::kDemanded, kNothing, kNothing, kNothing},
      {JobPhase::kWaiting, JobEvent::kDue, kStart, kWait, kBecomeIdle},
      {JobPhase::kWaiting, JobEvent::kStartFailed, kRetry, kRetry, kRetry},
      {JobPhase::kRunning, JobEvent::kSubmitted, kNothing, kNothing, kNothing},
      {JobPhase::kRunning, JobEvent::kProcessEnded, kStart, kWait, kBecomeIdle},
      {JobPhase::kRunning, JobEvent::kDemanded, kNothing, kNothing, kNothing},
      {JobPhase::kRunning, JobEvent::kDue, kNothing, kNothing, kNothing},
      {JobPhase::kRunning, JobEvent::kStartFailed, kNothing, kNothing, kNothing},
      {JobPhase::kRemoving, JobEvent::kSubmitted, kNothing, kNothing, kNothing},
      {JobPhase::kRemoving, JobEvent::kProcessEnded, kNothing, kNothing, kNothing},
      {JobPhase::kRemoving, JobEvent::kDemanded, kNothing, kNothing, kNothing},
      {JobPhase::kRemoving, JobEvent::kDue, kNothing, kNothing, kNothing},
      {JobPhase::kRemoving, JobEvent::kStartFailed, kNothing, kNothing, kNothing},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(testing::Message() << "row " << (&row - rows));
    EXPECT_EQ(nextAction(row.phase, row.event, true, true), row.start);
    EXPECT_EQ(nextAction(row.phase, row.event, true, false), row.wait);
    EXPECT_EQ(nextAction(row.phase, row.event, false, true), row.idle);
  }
}

}  // namespace
}  // namespace jobhost
