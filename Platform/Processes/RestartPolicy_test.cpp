#include "Platform/Processes/RestartPolicy.h"

#include <csignal>
#include <limits>
#include <optional>
#include <vector>

#include <gtest/gtest.h>

namespace platform {
namespace {

using namespace std::chrono_literals;
using End = std::optional<ExitStatus>;

constexpr End kSuccess = ExitStatus{ExitStatus::Kind::kExited, 0};
constexpr End kFailure = ExitStatus{ExitStatus::Kind::kExited, 1};
constexpr End kCrash = ExitStatus{ExitStatus::Kind::kSignalled, SIGSEGV};
constexpr End kTerminated = ExitStatus{ExitStatus::Kind::kSignalled, SIGTERM};
constexpr End kKilled = ExitStatus{ExitStatus::Kind::kSignalled, SIGKILL};
constexpr End kUnknown = std::nullopt;

RestartRules rulesOf(KeepAlive keepAlive, bool runAtLoad = false, Duration throttle = 10s) {
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
  for (const End& ending : {kSuccess, kFailure, kCrash, kUnknown}) {
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
  const RecentStarts starts{.last = Instant(1h)};
  EXPECT_EQ(earliestStart(rulesOf({}, false, 10s), {}), Instant());
  EXPECT_EQ(earliestStart(rulesOf({}, false, 10s), starts), *starts.last + 10s);
  EXPECT_EQ(earliestStart(rulesOf({}, false, 0s), starts), *starts.last);
  EXPECT_EQ(earliestStart(rulesOf({}, false, Duration::max()), starts), Instant::max());
}

TEST(RestartPolicy, OnlyWithoutAThrottleShortRunsPause) {
  for (const Duration throttle : {Duration::zero(), Duration(5s)}) {
    const RestartRules rules = rulesOf({}, false, throttle);
    RecentStarts starts{.last = Instant(1h)};
    for (int run = 0; run < 3; ++run) noteEnd(rules, starts, *starts.last + 999ms);
    EXPECT_EQ(starts.shortRuns, 3u);
    const Duration pause = throttle == Duration::zero() ? 999ms + 20ms : 5s;
    EXPECT_EQ(earliestStart(rules, starts), *starts.last + pause);
    noteEnd(rules, starts, *starts.last + kGoodRun);
    EXPECT_EQ(starts.shortRuns, 0u);
  }
}

TEST(RestartPolicy, ThePauseGrowsWithShortRunsUpToASecond) {
  const Duration pauses[] = {0ms, 0ms, 10ms, 20ms, 40ms, 80ms, 160ms, 320ms, 640ms, 1s, 1s};
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
}  // namespace platform
