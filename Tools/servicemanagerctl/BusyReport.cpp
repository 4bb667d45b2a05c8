#include "Tools/servicemanagerctl/BusyReport.h"

#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/Supervision/ExtensionControl.h"
#include "ServiceManager/Supervision/MainThreadWork.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

// A shorter time is ordinary work.
constexpr double kNoteworthySeconds = 1;

std::string_view wordIn(const Value& value) {
  return value.string() ? std::string_view(*value.string()) : std::string_view();
}

// The work on `label`, which may be empty.
std::string sentenceOf(std::string_view work, const std::string& label) {
  if (work == kWorkEvaluates) return "evaluates " + label;
  if (work == kWorkChecksService) return "checks how " + label + " is";
  if (work == kWorkChecksProgram) return "checks the program of " + label;
  if (work == kWorkReadsHealth) return "reads the health record";
  return "gives no answer";
}

std::string_view sentenceOf(std::string_view activity) {
  if (activity == kActivityAsksForItsJob) return "the job host is asked for its job";
  if (activity == kActivityConfiguresExtensions) return "its extensions are configured";
  if (activity == kActivityIsSubmitted) return "its job is submitted";
  if (activity == kActivityAwaitsProcess) return "its process is waited for";
  if (activity == kActivityIsRemoved) return "its processes are ended";
  if (activity == kActivityIsRemovedBeforeItRuns)
    return "its processes are ended before it is started again";
  return "is busy";
}

std::string_view sentenceOfStep(std::string_view step) {
  if (step == kKextIsRejected) return "its version is too old";
  if (step == kKextIsNotConfigured) return "it could not be configured";
  if (step == kKextIsNotLoaded) return "it could not be loaded";
  if (step == kKextIsUnchecked) return "its signature can't be checked now, and is checked again";
  if (step == kKextIsNotUnloaded) return "it could not be unloaded";
  return "the reason is not known";
}

std::string withTime(std::string_view text, const Value& seconds) {
  return fmt::format("{}, for {:.1f} s", text, seconds.real().value_or(0));
}

}  // namespace

std::string mainThreadsWork(const Value& facts) {
  const Value& thread = facts[kFactMainThread];
  if (thread[kFactBusyFor].real().value_or(0) <= kNoteworthySeconds) return {};
  const std::string label = plain(std::string(wordIn(thread[kFactWorkLabel])));
  return withTime(sentenceOf(wordIn(thread[kFactWork]), label), thread[kFactBusyFor]);
}

std::string workOnService(const Value& facts) {
  if (facts[kFactActivity].isNil()) return {};
  return withTime(sentenceOf(wordIn(facts[kFactActivity])), facts[kFactActivityFor]);
}

std::string failedExtensions(const Value& facts) {
  const Array* failed = facts[kFactFailedExtensions].array();
  if (!failed) return {};
  std::vector<std::string> names;
  for (const Value& name : *failed) names.push_back(plain(std::string(wordIn(name))));
  return fmt::format("{}", fmt::join(names, ", "));
}

std::string lackOfExtensions(const Value& facts) {
  return fmt::format(
      "it is wanted, and its extension {} can't be used; \"servicemanagerctl extensions\" tells "
      "why",
      failedExtensions(facts));
}

std::string failureOfExtension(const Value& facts) {
  if (facts[kFactKextFailedStep].isNil()) return {};
  return fmt::format("the last start has failed {:.1f} s ago: {}",
                     facts[kFactKextFailedAgo].real().value_or(0),
                     sentenceOfStep(wordIn(facts[kFactKextFailedStep])));
}
