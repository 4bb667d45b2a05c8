#include <algorithm>
#include <chrono>

#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/ServiceManager/HealthRecord.h"
#include "ServiceManager/ServiceManager/MinimumOSVersion.h"
#include "ServiceManager/ServiceManager/MonitoringRecord.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/SwitchComparison.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

// Nothing here may change what the daemon will do: no client of a settings server is made, no
// counter cleared, nothing of the daemon's own logged.

namespace {

// What each settings server gets to answer for all of a service's switches. With the job host's
// time, all servers that there are fit into what who asks is ready to wait.
constexpr Duration kLookTime = std::chrono::seconds(2);
// A job host that took so long to tell nothing of one job is not asked for others.
constexpr Duration kLongForAJobHost = std::chrono::seconds(1);

double inSeconds(Duration duration) {
  return std::chrono::duration<double>(std::max(duration, Duration::zero())).count();
}

void setIfKnown(Dictionary& facts, const char* key, Value value) {
  if (!value.isNil()) facts.set(key, std::move(value));
}

const char* outcomeOf(const Value& expected, const Value& current) {
  if (current.isNil()) return kOutcomeAbsent;
  switch (compareSwitch(expected, current)) {
    case SwitchComparison::kMatches:
      return kOutcomeMatches;
    case SwitchComparison::kDiffers:
      return kOutcomeDiffers;
    case SwitchComparison::kRaises:
      return kOutcomeClashes;
  }
  return kOutcomeAbsent;
}

bool isSilence(const NSException& exception) {
  return exception.name == kNSPortTimeoutException || exception.name == kNSInvalidSendPortException;
}

std::string refusalIn(const NSException& exception) {
  return exception.reason.empty() ? exception.name : exception.name + ": " + exception.reason;
}

}  // namespace

void ORBServiceManager::addOperatingFacts(Dictionary& facts) const {
  const Instant now = platform_.runLoop.now();
  facts.set(kFactOperatingMode, operatingMode_);
  if (product_) facts.set(kFactProduct, *product_);
  facts.set(kFactPrimary, primaryLabel());
  if (reevaluationTimer_) facts.set(kFactRetryIn, inSeconds(reevaluationDue_ - now));
  if (globalSettingsDidChangeEffectTimer_) {
    // One that has fired already is kept, and then holds up whatever comes.
    if (settingsEvaluationDue_ > now) {
      facts.set(kFactSettingsEvaluationIn, inSeconds(settingsEvaluationDue_ - now));
    } else {
      facts.set(kFactSettingsChangesWait, true);
    }
  }
  if (watchDog_) {
    facts.set(kFactWatchDogIn,
              inSeconds(kWatchDogInterval - (now - watchDogStart_) % kWatchDogInterval));
  }
}

void ORBServiceManager::addMarksOfService(Dictionary& facts, std::string_view label) const {
  facts.set(kFactType, serviceTypeForLabel(label, serviceInfo_));
  facts.set(kFactIsMonitored, isServiceBeingTrackedForRespawn(label));
  facts.set(kFactIsStopped, isServiceBeingTrackedForUserClientShutdownRequest(label));
  if (const auto due = dueShutdowns_.lower_bound(label);
      due != dueShutdowns_.end() && due->first == label) {
    facts.set(kFactStopIn, inSeconds(due->second - platform_.runLoop.now()));
  }
}

Value ORBServiceManager::operatorOverview() const {
  Dictionary facts;
  addOperatingFacts(facts);
  Dictionary all;
  const Value services = this->services();
  if (services.dictionary()) {
    for (const auto& [label, entry] : *services.dictionary()) {
      Dictionary service;
      addMarksOfService(service, label);
      all.set(label, std::move(service));
    }
  }
  facts.set(kFactServices, std::move(all));
  facts.set(kFactOtherServices, otherProductsServices_);
  return facts;
}

Value ORBServiceManager::operatorFactsOfService(std::string_view label) const {
  const bool isOfProduct = !serviceEntryWithLabel(label, serviceInfo_).isNil();
  if (!isOfProduct && !otherProductsServices_.contains(label)) return {};
  Dictionary facts{{kFactLabel, label}, {kFactIsOfProduct, isOfProduct}};
  addOperatingFacts(facts);
  if (!isOfProduct) {
    facts.set(kFactProducts, otherProductsServices_[label]);
    return facts;
  }
  const Value entry = serviceEntryWithLabel(label, serviceInfo_);
  setIfKnown(facts, kFactProducts, entry["Products"]);
  addMarksOfService(facts, label);
  facts.set(kFactIsPrimaryStopped,
            isServiceBeingTrackedForUserClientShutdownRequest(primaryLabel()));
  facts.set(kFactKernel, NSProcessInfo::Extensions::systemMajorNumber(&platform_.system));
  if (const Value version = entry["MinimumOSVersion"]; !version.isNil()) {
    facts.set(kFactMinimumOSVersion, stringWithFormat("%@", version));
    if (const auto needed = kernelMajorNumberForMinimumOSVersion(version)) {
      facts.set(kFactNeededKernel, *needed);
    }
  }
  addProgramFacts(facts, label);
  if (healthInfo_) {
    setIfKnown(facts, kFactHealth, healthInfo_->healthRecord()[kHealthServices][label]);
  }
  addSwitches(facts, entry["Features"]);
  return facts;
}

void ORBServiceManager::addProgramFacts(Dictionary& facts, std::string_view label) const {
  const Value jobInfo = jobInfoWithLabel(label, serviceInfo_);
  const std::string* program = jobInfo["Program"].string();
  if (program) {
    facts.set(kFactProgram, *program);
    const bool exists = platform_.files.fileExistsAtPath(*program);
    facts.set(kFactProgramExists, exists);
    if (exists) {
      const ORBSigningValidator::Verdict verdict = validator_.validateProgram(*program);
      facts.set(kFactProgramIsIntact, verdict.isIntact);
      if (!verdict.isIntact) facts.set(kFactProgramFault, verdict.reason);
      if (verdict.identifier) facts.set(kFactProgramIdentifier, *verdict.identifier);
    }
  }
  addJobFacts(facts, label);
}

void ORBServiceManager::addJobFacts(Dictionary& facts, std::string_view label) const {
  const Value job = copyJobDictionary(label);
  if (job.isNil()) return;
  if (isJobUnknown(job)) return facts.set(kFactJobIsUnknown, true);
  Dictionary state;
  for (const char* key : {"PID", "LastExitStatus", "LastExitStatusUnknown"}) {
    setIfKnown(state, key, job[key]);
  }
  facts.set(kFactJob, std::move(state));
}

Value ORBServiceManager::operatorJobsOfServices(const Array& labels) const {
  Dictionary all;
  bool isHostAway = false;
  for (const Value& label : labels) {
    if (!label.string() || serviceEntryWithLabel(*label.string(), serviceInfo_).isNil()) continue;
    Dictionary facts;
    if (isHostAway) {
      facts.set(kFactJobIsUnknown, true);
    } else {
      const Instant start = platform_.runLoop.now();
      addJobFacts(facts, *label.string());
      isHostAway =
          facts.contains(kFactJobIsUnknown) && platform_.runLoop.now() - start >= kLongForAJobHost;
    }
    all.set(*label.string(), std::move(facts));
  }
  return all;
}

void ORBServiceManager::addSwitches(Dictionary& facts, const Value& features) const {
  if (features.isNil()) return;
  if (!features.array()) {
    facts.set(kFactFeaturesAreMalformed, true);
    return;
  }
  Array all;
  SourceTimes left;
  for (const Value& feature : *features.array()) {
    if (!feature.string()) continue;
    const Value config = featureEntryWithFeatureName(*feature.string(), serviceInfo_)["Config"];
    if (!config.array()) continue;
    for (const Value& configuration : *config.array()) {
      const Dictionary* switches = configuration["Switches"].dictionary();
      if (!switches) continue;
      for (const auto& [key, expected] : *switches) {
        all.push_back(switchFacts(feature, configuration["Source"], key, expected, left));
      }
    }
  }
  facts.set(kFactSwitches, std::move(all));
}

Value ORBServiceManager::switchFacts(const Value& feature, const Value& source,
                                     const std::string& key, const Value& expected,
                                     SourceTimes& left) const {
  Dictionary facts{{kFactFeature, feature}, {kFactKey, key}, {kFactExpected, expected}};
  if (!source.string()) {
    facts.set(kFactOutcome, kOutcomeNoSource);
    return facts;
  }
  facts.set(kFactSource, source);
  const ConfigurationClients none;
  const ConfigurationClients& clients = configurationClients_ ? *configurationClients_ : none;
  const auto known = clients.find(*source.string());
  if (known == clients.end() || !known->second) {
    facts.set(kFactOutcome, known == clients.end() ? kOutcomeNotAsked : kOutcomeNoSource);
    return facts;
  }
  // However many of its switches there are.
  Duration& time = left.try_emplace(known->first, kLookTime).first->second;
  const Instant start = platform_.runLoop.now();
  const MessageResult current = time <= Duration::zero()
                                    ? std::unexpected(NSException{kNSPortTimeoutException, "", {}})
                                    : known->second->lookAtObjectForKey(key, time);
  time -= platform_.runLoop.now() - start;
  if (!current && isSilence(current.error())) {
    time = Duration::zero();  // It is not asked for the others.
    facts.set(kFactOutcome, kOutcomeNoAnswer);
    return facts;
  }
  if (!current) {
    facts.set(kFactRefusal, refusalIn(current.error()));
    facts.set(kFactOutcome, kOutcomeRefused);
    return facts;
  }
  setIfKnown(facts, kFactCurrent, *current);
  facts.set(kFactOutcome, outcomeOf(expected, *current));
  return facts;
}
