#pragma once

#include <optional>
#include <string>

#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/ServicesReport.h"

// Why a service does not run, in a few words, and whether that is a failure.

// The word for a service at a glance. The first ones need attention first.
enum class ServiceMark {
  kFailed,    // it is to run, and does not
  kUnknown,   // the job host does not answer
  kChanging,  // it is being started, or waits for the primary service
  kRunning,
  kOff,  // it is not to run
};

ServiceMark markOf(const ServiceState& service);

// When the job host starts the job again, which has ended; nothing if the host does not say how it
// ended. `throttle` is the job's "ThrottleInterval", or nil. It may be in the past: the job host
// may have other work.
std::optional<platform::WallTime> nextStart(const JobState& job, const platform::Value& throttle);

// "restarts in 7 s: ran 3 s of 10, exited with 3", "switch off: common/WebFilterEnabled". Empty if
// there is nothing to say. `facts` are those of the overview, and `reason` the service manager's
// answer about why it does not run (OperatorFacts.h).
std::string whyInWords(const ServiceState& service, const platform::Value& facts,
                       const platform::Value& reason, platform::WallTime now);
