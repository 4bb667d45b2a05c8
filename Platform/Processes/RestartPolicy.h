#pragma once

#include <chrono>
#include <optional>

#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Values/Time.h"

namespace platform {

// Decides when a job's processes are started. It only decides: the job host carries the decisions
// out, and so does the fake one of tests.

// The conditions under which a job is restarted after its process has ended.
struct KeepAlive {
  // "KeepAlive" as a boolean: after every end.
  bool always = false;
  // "SuccessfulExit": only after ends with status 0 (true), or only after others (false).
  std::optional<bool> successfulExit = {};
  // "Crashed": only after ends by a crash's signal (true), or only after others (false).
  std::optional<bool> crashed = {};

  bool operator==(const KeepAlive&) const = default;
};

// "ThrottleInterval" of a definition without the key.
inline constexpr Duration kDefaultThrottleInterval = std::chrono::seconds(10);

// The part of a definition that decides about starts.
struct RestartRules {
  KeepAlive keepAlive;
  bool runAtLoad = false;
  Duration throttleInterval = kDefaultThrottleInterval;
};

// The facts that delay the next start of a label.
struct RecentStarts {
  std::optional<Instant> last;  // also one that failed
  unsigned shortRuns = 0;       // in a row, up to the last end
  Instant pausedUntil{};        // because of short runs
};

// The phase that a job is in.
enum class JobPhase : unsigned char {
  kIdle,      // no process is wanted
  kWaiting,   // a process is wanted once the throttle allows it
  kRunning,   // it has a process
  kRemoving,  // its processes are being ended, then the job is forgotten
};

enum class JobEvent {
  kSubmitted,     // its definition is new, or has been replaced
  kProcessEnded,  // `wantsProcess` is wantsProcessAfter() of that end
  kDemanded,      // a client has connected to one of its services
  kDue,           // the throttle allows a start; unwanted if only a client wanted it, and has gone
  kStartFailed,   // a start of a known job
};

enum class JobAction {
  kNothing,
  kStart,
  kWait,   // for the throttle
  kRetry,  // wait until earliestRetry()
  kBecomeIdle,
};

// Whether a definition that was just submitted or loaded wants a process at once. A condition on
// how processes end needs a first process that can end.
bool wantsProcessAtLoad(const RestartRules& rules);

// Whether it wants another process after this end. Each condition suffices. An unknown end counts
// as no success, and both as a crash and as none: an unneeded process is bounded by the throttle, a
// missing one would be worse.
bool wantsProcessAfter(const RestartRules& rules, const std::optional<ExitStatus>& end);

// Whether this signal means a crash, not a request to end.
bool isCrash(int signal);

// The earliest time of the next start.
Instant earliestStart(const RestartRules& rules, const RecentStarts& starts);

// A process that was started at the last of these starts ends now.
void noteEnd(const RestartRules& rules, RecentStarts& starts, Instant now);

// A process that ran for less than this had a short run.
inline constexpr Duration kGoodRun = std::chrono::seconds(1);
// The pause of a job without a throttle after so many short runs in a row. It is nothing after the
// first, then 10 ms, and twice as long after each further one, up to a second: no job becomes a
// loop of forks, and one that ends once is back at once.
Duration pauseAfterShortRuns(unsigned shortRuns);

// The same after a failed start. A failed start costs as much as one that succeeds, so without a
// throttle it is retried only every second.
Instant earliestRetry(const RestartRules& rules, Instant failedStart);

// The next step of a job in `phase` when `event` happens.
JobAction nextAction(JobPhase phase, JobEvent event, bool wantsProcess, bool mayStart);

}  // namespace platform
