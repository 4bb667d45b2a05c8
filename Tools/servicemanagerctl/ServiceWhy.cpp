#include "Tools/servicemanagerctl/ServiceWhy.h"

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Platform/Processes/RestartPolicy.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using Activity = ServiceState::Activity;

constexpr std::int64_t kLongestThrottle = 1'000'000'000;

Duration throttleOf(const Value& throttle) {
  const auto seconds = throttle.integer();
  if (!seconds) return kDefaultThrottleInterval;
  return std::chrono::seconds(std::clamp<std::int64_t>(*seconds, 0, kLongestThrottle));
}

std::string textIn(const Value& value) { return value.string() ? plain(*value.string()) : "?"; }

// The switches with that outcome: "common/WebFilterEnabled", or the first one and how many there
// are.
std::string switchesThat(std::string_view outcome, const Value& reason) {
  const Array* switches = reason[kFactSwitches].array();
  if (!switches) return {};
  std::string first;
  std::size_t others = 0;
  for (const Value& row : *switches) {
    if (!row[kFactOutcome].string() || *row[kFactOutcome].string() != outcome) continue;
    if (first.empty()) {
      first = fmt::format("{}/{}", textIn(row[kFactSource]), textIn(row[kFactKey]));
    } else {
      ++others;
    }
  }
  return others == 0 ? first : fmt::format("{} and {} more", first, others);
}

// A switch that can't be compared, or has no value, is off like one with another value.
std::string switchesThatAreOff(const Value& reason) {
  for (const char* outcome : {kOutcomeDiffers, kOutcomeAbsent, kOutcomeClashes}) {
    if (auto names = switchesThat(outcome, reason); !names.empty())
      return fmt::format("switch {}: {}",
                         outcome == std::string_view(kOutcomeDiffers)  ? "off"
                         : outcome == std::string_view(kOutcomeAbsent) ? "not set"
                                                                       : "of another kind",
                         names);
  }
  return "no switch asks for it";
}

std::string endInWords(const ServiceState& service, const Value& reason, WallTime now) {
  const JobState& job = service.job;
  const std::string ending = inWords(job.lastExit);
  const auto start = nextStart(job, reason[kFactThrottle]);
  if (!start) return "ended: " + ending;
  if (*start <= now) return "is to be restarted now: " + ending;
  const auto left = std::chrono::ceil<std::chrono::seconds>(*start - now);
  const double ran = std::chrono::duration<double>(job.history->lastEnds.back().ran).count();
  return fmt::format("restarts in {} s: ran {:.0f} s of {}, {}", left.count(), ran,
                     throttleOf(reason[kFactThrottle]) / std::chrono::seconds(1), ending);
}

std::string remarkOnRunning(const ServiceState& service, const Value& facts) {
  if (!facts[kFactStopIn].isNil())
    return fmt::format("stops in {:.1f} s: no switch asks for it",
                       facts[kFactStopIn].real().value_or(0));
  if (service.isUnchecked) return "its program can't be checked now";
  if (const std::string crashes = crashesInWords(service.job); !crashes.empty())
    return inWords(service.job.lastExit) + crashes;
  return isFailure(service.job.lastExit) ? inWords(service.job.lastExit) : std::string();
}

std::string shortReason(const ServiceState& service, const Value& facts, const Value& reason,
                        WallTime now) {
  const std::string& word = service.reason;
  if (word == kReasonNoJob) return "the catalogue names no program";
  if (word == kReasonStopped) return "stopped by hand";
  if (word == kReasonInstaller) return "installer at work";
  if (word == kReasonWaiting) return "configuration server not up";
  if (word == kReasonPrimaryStopped) return "primary service stopped by hand";
  if (word == kReasonPrimaryOtherProduct) return "primary service of another product";
  if (word == kReasonNoProgram) return "program missing";
  if (word == kReasonDamaged) return "program damaged or not signed";
  if (word == kReasonUnchecked) return "program can't be checked now";
  if (word == kReasonExtension) return "extension can't be used: " + service.failedExtensions;
  if (word == kReasonEnded) return endInWords(service, reason, now);
  if (word == kReasonMalformedFeatures) return "its features are no list";
  if (word == kReasonNoSwitch) return "no switch could ask for it";
  if (word == kReasonNotEvaluated) return "its switches are not evaluated yet";
  if (word == kReasonNoAnswer) return "no answer about " + switchesThat(kOutcomeNoAnswer, reason);
  if (word == kReasonRefused) return "refused: " + switchesThat(kOutcomeRefused, reason);
  if (word == kReasonNoMatch) return switchesThatAreOff(reason);
  if (!facts[kFactSettingsEvaluationIn].isNil()) return "everything is evaluated soon";
  return word == kReasonNotStarted ? "was not started" : std::string();
}

}  // namespace

ServiceMark markOf(const ServiceState& service) {
  switch (service.activity) {
    case Activity::kUnknown:
      return ServiceMark::kUnknown;
    case Activity::kRunning:
      return ServiceMark::kRunning;
    case Activity::kStarting:
      return ServiceMark::kChanging;
    case Activity::kUnsupported:
      return ServiceMark::kOff;
    case Activity::kNeedsExtension:
    case Activity::kUnchecked:
    case Activity::kStopped:
    case Activity::kWaiting:
      break;
  }
  for (const std::string_view off : {kReasonStopped, kReasonInstaller, kReasonPrimaryStopped,
                                     kReasonUnsupported, kReasonNoSwitch, kReasonNoMatch}) {
    if (service.reason == off) return ServiceMark::kOff;
  }
  if (service.reason == kReasonWaiting || service.reason == kReasonNotEvaluated)
    return ServiceMark::kChanging;
  const bool hasEnded = service.activity == Activity::kWaiting;
  return hasEnded && !isFailure(service.job.lastExit) ? ServiceMark::kChanging
                                                      : ServiceMark::kFailed;
}

std::optional<WallTime> nextStart(const JobState& job, const Value& throttle) {
  if (job.process || !job.history || job.history->lastEnds.empty()) return std::nullopt;
  const JobHistory::End& last = job.history->lastEnds.back();
  return last.at - last.ran + throttleOf(throttle);
}

std::string whyInWords(const ServiceState& service, const Value& facts, const Value& reason,
                       WallTime now) {
  if (service.activity == Activity::kUnknown) return "the job host does not answer";
  if (service.job.process) return remarkOnRunning(service, facts);
  if (!service.work.empty()) return service.work;
  if (service.activity == Activity::kUnsupported) return "this system is older";
  return shortReason(service, facts, reason, now);
}
