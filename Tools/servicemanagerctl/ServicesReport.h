#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/Output.h"

// The service manager's services, for people and for programs.

struct ServiceState {
  enum class Type { kCore, kFeature };
  enum class Activity {
    kRunning,
    kWaiting,         // its process has ended and will be started again
    kStopped,         // it has no process, and none has ended
    kStarting,        // the same, and it is being started
    kNeedsExtension,  // the same, and one of its extensions can't be used
    kUnchecked,       // the same, and its program can't be checked now
    kUnsupported,     // it has no process and needs a newer system
    kUnknown,         // the job host does not answer
  };

  JobState job;
  Type type = Type::kCore;
  Activity activity = Activity::kStopped;
  std::string neededSystem = {};      // the release that the service requires; empty for any
  std::string failedExtensions = {};  // the names of those that can't be used
  std::string work = {};              // the work on it, in words
  bool isUnchecked = false;           // its program can't be checked now, whether it runs or not
  // The service manager's word for why it does not run, see reasonOf(); empty if it runs.
  std::string reason = {};
  std::string why = {};  // the same in a few words, or a remark on one that runs; see whyInWords()
  std::optional<platform::WallTime> since = {};  // its process runs, or has ended

  bool operator==(const ServiceState&) const = default;
};

// Derives a service's state from its entry in the catalogue and the facts of its job; see
// OperatorFacts.h. `services` are all entries.
ServiceState serviceState(const std::string& label, const platform::Value& services,
                          const platform::Value& jobFacts,
                          const platform::SystemInformation& system);

// The same from the operator's facts of the service.
ServiceState listedService(const std::string& label, const platform::Value& facts,
                           const platform::Value& jobFacts,
                           const platform::SystemInformation& system);

// "running", "waiting", "stopped", "needs 10.11", "unknown", "starting", "no extension",
// "unchecked", "running, unchecked".
std::string inWords(const ServiceState& service);

std::string_view typeWord(ServiceState::Type type);  // "core", "feature"

// ", 3 crashes in 5 starts"; empty without a crash.
std::string crashesInWords(const JobState& job);

nlohmann::ordered_json asJson(const ServiceState& service);
nlohmann::ordered_json asJson(const std::vector<ServiceState>& services);

// The state of a service after a command to start or stop it, as a sentence.
std::string asSentence(const ServiceState& service);
