#include "JobHost/RestartPolicy.h"

#include <algorithm>
#include <array>
#include <chrono>
#include <csignal>
#include <limits>

namespace jobhost {
namespace {

using platform::Duration;
using platform::ExitStatus;
using platform::Instant;

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

bool wantsProcessAfter(const RestartRules& rules, const Ending& ending) {
  const KeepAlive& keepAlive = rules.keepAlive;
  if (keepAlive.always) return true;
  const bool succeeded = ending == Ending(ExitStatus{ExitStatus::Kind::kExited, 0});
  if (keepAlive.successfulExit == succeeded) return true;
  if (!keepAlive.crashed) return false;
  if (!ending) return true;
  const ExitStatus& status = ending->status;
  const bool crashed = status.kind == ExitStatus::Kind::kSignalled && isCrash(status.number);
  return *keepAlive.crashed == crashed;
}

Instant earliestStart(const RestartRules& rules, std::optional<Instant> lastStart) {
  return lastStart ? after(*lastStart, rules.throttleInterval) : Instant::min();
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

}  // namespace jobhost
