#include "ServiceManager/ServiceManager/OperatorReport.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/MinimumOSVersion.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "ServiceManager/Supervision/ServiceProgram.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

namespace {

// The time in which each settings server must answer for all switches of a service. With that of
// the job host, the times of all servers add up to less than the operator's command waits.
constexpr Duration kProbeTime = std::chrono::seconds(2);
// If the job host took this long and did not answer about one job, it is not asked about others.
constexpr Duration kSlowJobHostTime = std::chrono::seconds(1);

double inSeconds(Duration duration) {
  return std::chrono::duration<double>(std::max(duration, Duration::zero())).count();
}

void setIfKnown(Dictionary& facts, const char* key, Value value) {
  if (!value.isNil()) facts.set(key, std::move(value));
}

const char* wordOf(SwitchOutcome outcome) {
  switch (outcome) {
    case SwitchOutcome::kMatches:
      return kOutcomeMatches;
    case SwitchOutcome::kDiffers:
      return kOutcomeDiffers;
    case SwitchOutcome::kClashes:
      return kOutcomeClashes;
    case SwitchOutcome::kAbsent:
      return kOutcomeAbsent;
    case SwitchOutcome::kNoAnswer:
      return kOutcomeNoAnswer;
    case SwitchOutcome::kRefused:
      return kOutcomeRefused;
    case SwitchOutcome::kNotAsked:
      return kOutcomeNotAsked;
    case SwitchOutcome::kNoSource:
      return kOutcomeNoSource;
  }
  return kOutcomeNoSource;
}

bool isMissingAnswer(const NSException& exception) {
  return exception.name == kNSPortTimeoutException || exception.name == kNSInvalidSendPortException;
}

std::string refusalIn(const NSException& exception) {
  return exception.reason.empty() ? exception.name : exception.name + ": " + exception.reason;
}

}  // namespace

void OperatorReport::addOperatingFacts(Dictionary& facts) const {
  const EvaluationTimers& timers = environment_.timers;
  facts.set(kFactOperatingMode, environment_.operatingMode);
  if (environment_.product) facts.set(kFactProduct, *environment_.product);
  facts.set(kFactPrimary, environment_.catalogue.primaryLabel());
  if (const auto left = timers.untilReevaluation()) facts.set(kFactRetryIn, inSeconds(*left));
  if (const auto left = timers.untilSettingsEvaluation()) {
    // A timer that has fired outside the normal mode is kept, and delays further changes.
    if (*left > Duration::zero()) {
      facts.set(kFactSettingsEvaluationIn, inSeconds(*left));
    } else {
      facts.set(kFactSettingsChangesWait, true);
    }
  }
  if (const auto left = timers.untilWatchDog()) facts.set(kFactWatchDogIn, inSeconds(*left));
}

void OperatorReport::addMarksOfService(Dictionary& facts, std::string_view label) const {
  const MonitoringRecords& records = environment_.records;
  facts.set(kFactType, environment_.catalogue.serviceType(label));
  facts.set(kFactIsMonitored, records.isServiceBeingTrackedForRespawn(label));
  facts.set(kFactIsStopped, records.isServiceBeingTrackedForUserClientShutdownRequest(label));
  if (const auto left = environment_.timers.untilShutdown(label)) {
    facts.set(kFactStopIn, inSeconds(*left));
  }
}

Value OperatorReport::overview() const {
  Dictionary facts;
  addOperatingFacts(facts);
  Dictionary all;
  const Value& services = environment_.catalogue.services();
  if (services.dictionary()) {
    for (const auto& [label, entry] : *services.dictionary()) {
      Dictionary service;
      addMarksOfService(service, label);
      all.set(label, std::move(service));
    }
  }
  facts.set(kFactServices, std::move(all));
  facts.set(kFactOtherServices, environment_.catalogue.otherProductsServices());
  return facts;
}

Value OperatorReport::healthRecord() const {
  return environment_.health ? environment_.health->healthRecord() : Value();
}

Value OperatorReport::factsOfService(std::string_view label) const {
  const ServiceCatalogue& catalogue = environment_.catalogue;
  const Value entry = catalogue.service(label);
  const bool isOfProduct = !entry.isNil();
  if (!isOfProduct && !catalogue.otherProductsServices().contains(label)) return {};
  Dictionary facts{{kFactLabel, label}, {kFactIsOfProduct, isOfProduct}};
  addOperatingFacts(facts);
  if (!isOfProduct) {
    facts.set(kFactProducts, catalogue.otherProductsServices()[label]);
    facts.set(kFactReason, reasonOf({.isOfProduct = false}));
    return facts;
  }
  setIfKnown(facts, kFactProducts, entry["Products"]);
  addMarksOfService(facts, label);
  const MonitoringRecords& records = environment_.records;
  const std::string primary = catalogue.primaryLabel();
  ServiceSituation situation{
      .isPrimary = label == primary,
      .type = catalogue.serviceType(label),
      .operatingMode = environment_.operatingMode,
      .isStopped = records.isServiceBeingTrackedForUserClientShutdownRequest(label),
      .isPrimaryStopped = records.isServiceBeingTrackedForUserClientShutdownRequest(primary)};
  facts.set(kFactIsPrimaryStopped, situation.isPrimaryStopped);
  addSystemFacts(facts, situation, entry);
  addProgramFacts(facts, situation, label);
  situation.job = addJobFacts(facts, label);
  addHealthFacts(facts, situation, label);
  addSwitches(facts, situation, label);
  facts.set(kFactReason, reasonOf(situation));
  return facts;
}

void OperatorReport::addSystemFacts(Dictionary& facts, ServiceSituation& situation,
                                    const Value& entry) const {
  const std::int64_t kernel = NSProcessInfo::Extensions::systemMajorNumber(&environment_.system);
  facts.set(kFactKernel, kernel);
  const Value version = entry["MinimumOSVersion"];
  situation.support = osSupport(version, kernel);
  facts.set(kFactIsSupported, situation.support == OSSupport::kSupported);
  if (version.isNil()) return;
  facts.set(kFactMinimumOSVersion, stringWithFormat("%@", version));
  if (const auto needed = kernelMajorNumberForMinimumOSVersion(version)) {
    facts.set(kFactNeededKernel, *needed);
  }
}

void OperatorReport::addProgramFacts(Dictionary& facts, ServiceSituation& situation,
                                     std::string_view label) const {
  situation.program = std::nullopt;
  const Value jobInfo = environment_.catalogue.jobInfo(label);
  const std::string* program = jobInfo["Program"].string();
  if (!program) return;
  facts.set(kFactProgram, *program);
  const auto [state, verdict] = checkProgram(*program, environment_.files, environment_.validator);
  situation.program = state;
  facts.set(kFactProgramExists, state != ProgramState::kMissing);
  if (state == ProgramState::kMissing) return;
  if (verdict.isUnknown()) {
    facts.set(kFactProgramIsUnchecked, true);
  } else {
    facts.set(kFactProgramIsIntact, verdict.isIntact());
  }
  if (!verdict.isIntact()) facts.set(kFactProgramFault, verdict.reason);
  if (verdict.identifier) facts.set(kFactProgramIdentifier, *verdict.identifier);
}

ServiceJobState OperatorReport::addJobFacts(Dictionary& facts, std::string_view label) const {
  const Value job = environment_.jobs.copyJobDictionary(label);
  if (job.isNil()) return ServiceJobState::kAbsent;
  if (isJobUnknown(job)) {
    facts.set(kFactJobIsUnknown, true);
    return ServiceJobState::kUnknown;
  }
  Dictionary state;
  for (const char* key : {kJobProcessKey, kJobLastStatusKey, kJobLastStatusUnknownKey}) {
    setIfKnown(state, key, job[key]);
  }
  facts.set(kFactJob, std::move(state));
  return jobStatusIn(job).process ? ServiceJobState::kRuns : ServiceJobState::kHasNoProcess;
}

void OperatorReport::addHealthFacts(Dictionary& facts, ServiceSituation& situation,
                                    std::string_view label) const {
  const Value health = healthRecord()[kHealthServices][label];
  setIfKnown(facts, kFactHealth, health);
  const bool isReady = health[kHealthStatus] != Value(std::to_underlying(HealthStatus::kUnready));
  const auto retry = environment_.timers.untilReevaluation();
  const auto stop = environment_.timers.untilShutdown(label);
  // A service that is stopped before the retry is no longer one of those that are not ready.
  situation.isRetried = !isReady && retry && !(stop && *stop < *retry);
  facts.set(kFactIsRetried, situation.isRetried);
}

Value OperatorReport::jobsOfServices(const Array& labels) const {
  Dictionary all;
  bool isHostAway = false;
  for (const Value& label : labels) {
    if (!label.string() || environment_.catalogue.service(*label.string()).isNil()) continue;
    Dictionary facts;
    if (isHostAway) {
      facts.set(kFactJobIsUnknown, true);
    } else {
      const Instant start = environment_.runLoop.now();
      addJobFacts(facts, *label.string());
      isHostAway = facts.contains(kFactJobIsUnknown) &&
                   environment_.runLoop.now() - start >= kSlowJobHostTime;
    }
    all.set(*label.string(), std::move(facts));
  }
  return all;
}

void OperatorReport::addSwitches(Dictionary& facts, ServiceSituation& situation,
                                 std::string_view label) const {
  if (situation.type != kFeatureService) return;
  const auto configurations = featureConfigurations(environment_.catalogue, label);
  if (!configurations) {
    situation.areFeaturesMalformed = true;
    facts.set(kFactFeaturesAreMalformed, true);
    return;
  }
  Array all;
  SourceTimes left;
  for (const FeatureConfiguration& configuration : *configurations) {
    for (const auto& [key, expected] : configuration.switches) {
      Dictionary row{
          {kFactFeature, configuration.feature}, {kFactKey, key}, {kFactExpected, expected}};
      situation.switches.push_back(addSwitchFacts(row, configuration, key, expected, left));
      row.set(kFactOutcome, wordOf(situation.switches.back()));
      all.push_back(std::move(row));
    }
  }
  facts.set(kFactSwitches, std::move(all));
}

SwitchOutcome OperatorReport::addSwitchFacts(Dictionary& facts,
                                             const FeatureConfiguration& configuration,
                                             const std::string& key, const Value& expected,
                                             SourceTimes& left) const {
  if (!configuration.source) return SwitchOutcome::kNoSource;
  facts.set(kFactSource, *configuration.source);
  const auto asked = environment_.askedSources.find(*configuration.source);
  if (asked == environment_.askedSources.end()) return SwitchOutcome::kNotAsked;
  SettingsClient* const client =
      asked->second ? environment_.sources.configurationWithSelectorPrefix(asked->first) : nullptr;
  if (!client) return SwitchOutcome::kNoSource;
  // This time is for all switches of the server, however many there are.
  Duration& time = left.try_emplace(asked->first, kProbeTime).first->second;
  const Instant start = environment_.runLoop.now();
  const MessageResult current = time <= Duration::zero()
                                    ? std::unexpected(NSException{kNSPortTimeoutException, "", {}})
                                    : client->probeObjectForKey(key, time);
  time -= environment_.runLoop.now() - start;
  if (!current && isMissingAnswer(current.error())) {
    time = Duration::zero();  // It is not asked about its other switches.
    return SwitchOutcome::kNoAnswer;
  }
  if (!current) {
    facts.set(kFactRefusal, refusalIn(current.error()));
    return SwitchOutcome::kRefused;
  }
  setIfKnown(facts, kFactCurrent, *current);
  return outcomeOf(compareSwitch(expected, *current));
}
