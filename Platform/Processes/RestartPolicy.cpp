#include "Platform/Processes/RestartPolicy.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <limits>

namespace platform {
namespace {

constexpr Duration kMinimumRetryInterval = std::chrono::seconds(1);

constexpr Duration kFirstPause = std::chrono::milliseconds(10);
constexpr Duration kMaximumPause = std::chrono::seconds(1);
constexpr unsigned kMaximumDoublings = 7;  // beyond kMaximumPause

constexpr std::array kCrashes{SIGILL, SIGTRAP, SIGABRT, SIGBUS, SIGFPE, SIGSEGV, SIGSYS};

Instant after(Instant start, Duration interval) {
  constexpr Instant kNever = Instant::max();
  return interval < kNever - std::max(start, Instant{}) ? start + interval : kNever;
}

}  // namespace

bool isCrash(int signal) { return std::ranges::find(kCrashes, signal) != kCrashes.end(); }

bool wantsProcessAtLoad(const RestartRules& rules) {
  return rules.runAtLoad || rules.keepAlive != KeepAlive{};
}

bool wantsProcessAfter(const RestartRules& rules, const std::optional<ExitStatus>& end) {
  const KeepAlive& keepAlive = rules.keepAlive;
  if (keepAlive.always) return true;
  const bool succeeded = end == ExitStatus{ExitStatus::Kind::kExited, 0};
  if (keepAlive.successfulExit == succeeded) return true;
  if (!keepAlive.crashed) return false;
  if (!end) return true;
  const bool crashed = end->kind == ExitStatus::Kind::kSignalled && isCrash(end->number);
  return *keepAlive.crashed == crashed;
}

Instant earliestStart(const RestartRules& rules, const RecentStarts& starts) {
  const Instant unthrottled =
      starts.last ? after(*starts.last, rules.throttleInterval) : Instant::min();
  return std::max(unthrottled, starts.pausedUntil);
}

void noteEnd(const RestartRules& rules, RecentStarts& starts, Instant now) {
  const Duration ran = now - starts.last.value_or(now);
  starts.shortRuns = ran < kGoodRun ? starts.shortRuns + 1 : 0;
  const bool hasThrottle = rules.throttleInterval > Duration::zero();
  starts.pausedUntil = hasThrottle ? now : now + pauseAfterShortRuns(starts.shortRuns);
}

Duration pauseAfterShortRuns(unsigned shortRuns) {
  if (shortRuns < 2) return Duration::zero();
  const unsigned doublings = std::min(shortRuns - 2, kMaximumDoublings);
  return std::min(kFirstPause * (1U << doublings), kMaximumPause);
}

Instant earliestRetry(const RestartRules& rules, Instant failedStart) {
  return after(failedStart, std::max(rules.throttleInterval, kMinimumRetryInterval));
}

JobAction nextAction(JobPhase phase, JobEvent event, bool wantsProcess, bool mayStart) {
  // A job that is being removed only ends. A running process is affected only by its own end.
  if (phase == JobPhase::kRemoving) return JobAction::kNothing;
  if (phase == JobPhase::kRunning && event != JobEvent::kProcessEnded) return JobAction::kNothing;
  switch (event) {
    case JobEvent::kSubmitted:
    case JobEvent::kProcessEnded:
      if (!wantsProcess) return JobAction::kBecomeIdle;
      return mayStart ? JobAction::kStart : JobAction::kWait;
    case JobEvent::kDemanded:
      if (phase != JobPhase::kIdle) return JobAction::kNothing;
      return mayStart ? JobAction::kStart : JobAction::kWait;
    case JobEvent::kDue:
      if (phase != JobPhase::kWaiting) return JobAction::kNothing;
      if (!wantsProcess) return JobAction::kBecomeIdle;
      return mayStart ? JobAction::kStart : JobAction::kWait;
    case JobEvent::kStartFailed:
      return JobAction::kRetry;
  }
  return JobAction::kNothing;
}

}  // namespace platform
