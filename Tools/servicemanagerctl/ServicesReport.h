#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/Output.h"

// What the service manager tells of its services, for people and for programs.

struct ServiceState {
  enum class Type { kCore, kFeature };
  enum class Activity {
    kRunning,
    kWaiting,      // its process has ended and is to be started again
    kStopped,      // it has no process, and none that ended
    kUnsupported,  // it has no process and needs a newer system
    kUnknown,      // the job host does not tell
  };

  JobState job;
  Type type = Type::kCore;
  Activity activity = Activity::kStopped;
  std::string neededSystem = {};  // the release that the service asks for; empty for any

  bool operator==(const ServiceState&) const = default;
};

// A service's state from its entry in the catalogue and from the facts of its job, see
// OperatorFacts.h. `services` are all entries.
ServiceState serviceState(const std::string& label, const platform::Value& services,
                          const platform::Value& jobFacts,
                          const platform::SystemInformation& system);

// "running", "waiting", "stopped", "needs 10.11", "unknown".
std::string inWords(const ServiceState& service);

// Every line with a line end. No service at all is told in words.
std::string asTable(const std::vector<ServiceState>& services, Reader reader);
nlohmann::ordered_json asJson(const ServiceState& service);
nlohmann::ordered_json asJson(const std::vector<ServiceState>& services);

// What became of a service that was to start or to stop, in a sentence.
std::string asSentence(const ServiceState& service);

// A status notice as a line that tells the time, or nothing for what is no notice; and the same for
// programs, on one line.
std::optional<std::string> noticeAsText(const platform::Value& notice, std::string_view time,
                                        Reader reader);
std::optional<std::string> noticeAsJson(const platform::Value& notice, std::string_view time);
