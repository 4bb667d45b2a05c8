#include "Tools/servicemanagerctl/ServicesReport.h"

#include <fmt/format.h>

#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"
#include "ServiceManager/Catalogue/MinimumOSVersion.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"
#include "Tools/servicemanagerctl/BusyReport.h"
#include "Tools/servicemanagerctl/TimeWords.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using Activity = ServiceState::Activity;
using Json = nlohmann::ordered_json;

// Whether this system is too old for the service. The service manager reports that only in its log.
bool isUnsupported(const Value& neededSystem, const SystemInformation& system) {
  if (neededSystem.isNil()) return false;
  const auto needed = kernelMajorNumberForMinimumOSVersion(neededSystem);
  return !needed || NSProcessInfo::Extensions::systemMajorNumber(&system) < *needed;
}

Activity activityOf(const JobState& job, const Value& neededSystem,
                    const SystemInformation& system) {
  if (job.process) return Activity::kRunning;
  if (isUnsupported(neededSystem, system)) return Activity::kUnsupported;
  return job.lastExit == JobState::Ending{} ? Activity::kStopped : Activity::kWaiting;
}

std::string_view wordOf(Activity activity) {
  switch (activity) {
    case Activity::kRunning:
      return "running";
    case Activity::kWaiting:
      return "waiting";
    case Activity::kStopped:
      return "stopped";
    case Activity::kStarting:
      return "starting";
    case Activity::kNeedsExtension:
      return "no extension";
    case Activity::kUnchecked:
      return "unchecked";
    case Activity::kUnsupported:
      return "unsupported";
    case Activity::kUnknown:
      return "unknown";
  }
  return "";
}

// Empty if any release will do.
std::string nameOfRelease(const Value& needed) {
  if (needed.isNil()) return "";
  return needed.string() ? *needed.string() : stringWithFormat("%@, no text", needed);
}

ServiceState stateOf(const std::string& label, std::string_view type, const Value& needed,
                     const Value& jobFacts, const SystemInformation& system) {
  ServiceState state{
      .job = jobState(label, jobFacts[kFactJob]),
      .type = type == kFeatureService ? ServiceState::Type::kFeature : ServiceState::Type::kCore,
      .neededSystem = nameOfRelease(needed)};
  state.activity = jobFacts[kFactJobIsUnknown] == Value(true)
                       ? Activity::kUnknown
                       : activityOf(state.job, needed, system);
  return state;
}

}  // namespace

std::string_view typeWord(ServiceState::Type type) {
  return type == ServiceState::Type::kFeature ? "feature" : "core";
}

std::string crashesInWords(const JobState& job) {
  if (!job.history || job.history->crashes == 0) return {};
  return fmt::format(", {} crash{} in {} start{}", job.history->crashes,
                     job.history->crashes == 1 ? "" : "es", job.history->starts,
                     job.history->starts == 1 ? "" : "s");
}

ServiceState serviceState(const std::string& label, const Value& services, const Value& jobFacts,
                          const SystemInformation& system) {
  const std::string_view type = serviceTypeForLabel(label, Dictionary{{"Services", services}});
  return stateOf(label, type, services[label]["MinimumOSVersion"], jobFacts, system);
}

ServiceState listedService(const std::string& label, const Value& facts, const Value& jobFacts,
                           const SystemInformation& system) {
  const std::string* type = facts[kFactType].string();
  ServiceState state =
      stateOf(label, type ? *type : "", facts[kFactMinimumOSVersion], jobFacts, system);
  state.failedExtensions = failedExtensions(facts);
  state.work = workOnService(facts);
  state.isUnchecked = facts[kFactProgramIsUnchecked] == Value(true);
  if (state.activity != Activity::kStopped) return state;
  const Value& activity = facts[kFactActivity];
  if (activity == Value(kActivityAsksForItsJob) ||
      activity == Value(kActivityConfiguresExtensions) || activity == Value(kActivityIsSubmitted) ||
      activity == Value(kActivityAwaitsProcess)) {
    state.activity = Activity::kStarting;
  } else if (!state.failedExtensions.empty() && facts[kFactIsStopped] != Value(true)) {
    state.activity = Activity::kNeedsExtension;
  } else if (state.isUnchecked) {
    state.activity = Activity::kUnchecked;
  }
  return state;
}

std::string inWords(const ServiceState& service) {
  if (service.activity == Activity::kUnsupported) return "needs " + plain(service.neededSystem);
  const std::string word(wordOf(service.activity));
  const bool isRunning = service.activity == Activity::kRunning;
  return service.isUnchecked && isRunning ? word + ", unchecked" : word;
}

Json asJson(const ServiceState& service) {
  const Json job = asJson(service.job);
  Json json{{"label", service.job.label},
            {"type", typeWord(service.type)},
            {"state", wordOf(service.activity)}};
  json["pid"] = job["pid"];
  json["lastExit"] = job["lastExit"];
  json["neededSystem"] = service.neededSystem.empty() ? Json() : Json(service.neededSystem);
  if (service.job.history) json["history"] = asJson(*service.job.history);
  if (service.job.tree) json["tree"] = asJson(*service.job.tree);
  if (!service.failedExtensions.empty()) json["failedExtensions"] = service.failedExtensions;
  if (!service.work.empty()) json["now"] = service.work;
  if (service.isUnchecked) json["unchecked"] = true;
  if (!service.reason.empty()) json["reason"] = service.reason;
  if (!service.why.empty()) json["why"] = service.why;
  if (service.since) json["since"] = timeAsText(*service.since);
  return json;
}

Json asJson(const std::vector<ServiceState>& services) {
  Json json = Json::array();
  for (const ServiceState& service : services) json.push_back(asJson(service));
  return json;
}

std::string asSentence(const ServiceState& service) {
  const std::string label = plain(service.job.label);
  switch (service.activity) {
    case Activity::kRunning:
      return fmt::format("{} runs as process {}.\n", label, *service.job.process);
    case Activity::kWaiting:
      return fmt::format("{} has no process now and is to be started again; its last exit: {}.\n",
                         label, inWords(service.job.lastExit));
    case Activity::kStopped:
    case Activity::kStarting:
    case Activity::kNeedsExtension:
    case Activity::kUnchecked:
      return fmt::format("{} is stopped.\n", label);
    case Activity::kUnsupported:
      return fmt::format("{} is not started here: it needs release {}.\n", label,
                         plain(service.neededSystem));
    case Activity::kUnknown:
      return fmt::format("Whether {} runs is not known: the job host does not answer.\n", label);
  }
  return "";
}
