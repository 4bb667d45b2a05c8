#pragma once

#include <optional>

#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Values/Time.h"

namespace jobhost {

// When a job's processes are started. Decisions only: who calls does what they say.

// What of a definition decides it.
struct RestartRules {
  KeepAlive keepAlive;
  bool runAtLoad = false;
  platform::Duration throttleInterval{};
};

// What a job is doing.
enum class JobPhase : unsigned char {
  kIdle,      // nothing wants a process of it
  kWaiting,   // a process is wanted as soon as the throttle lets it start
  kRunning,   // it has a process
  kRemoving,  // its processes are on their way to their end, and the job with them
};

enum class JobEvent {
  kSubmitted,     // its definition has come, or has been replaced
  kProcessEnded,  // with what `wantsProcess` says of that end
  kStartFailed,
  kDue,  // the throttle lets it start
};

enum class JobAction {
  kNothing,
  kStart,
  kWait,  // for the throttle
  kRest,  // becomes idle
};

// Whether a definition that has just come wants a process at once. A condition on how processes end
// needs a first one that can end.
bool wantsProcessAtLoad(const RestartRules& rules);

// Whether it wants another process after this end. Each of its conditions is enough. An end that
// nobody could be told of was no success; whether it was a crash can't be known, and then a process
// too many, which the throttle bounds, is better than one that is missing.
bool wantsProcessAfter(const RestartRules& rules, const Ending& ending);

// Whether a process that ended by this signal crashed, or was told to end.
bool isCrash(int signal);

// The first moment at which a process may be started, where the last one was at `lastStart`.
platform::Instant earliestStart(const RestartRules& rules,
                                std::optional<platform::Instant> lastStart);
// The same after a start that failed: it costs as much as one that succeeds, so that without a
// throttle it is tried again only every second.
platform::Instant earliestRetry(const RestartRules& rules, platform::Instant failedStart);

// The next step of a job that is in `phase`, when `event` happens.
JobAction nextAction(JobPhase phase, JobEvent event, bool wantsProcess, bool mayStart);

}  // namespace jobhost
