#include "ServiceManager/ServiceManager/OperatorReport.h"

#include <algorithm>
#include <chrono>
#include <utility>

#include "ServiceManager/Catalogue/MinimumOSVersion.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/ReportedFacts.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "ServiceManager/Supervision/ProgramFindings.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

namespace {

// The time for all questions to settings servers. If a server does not answer within it, the report
// says so and has the value of the last evaluation.
constexpr Duration kProbeTime = std::chrono::milliseconds(40);
// The time of a server that is known to hang. One that goes on answers much sooner.
constexpr Duration kShortProbeTime = std::chrono::milliseconds(20);

double inSeconds(Duration duration) {
  return std::chrono::duration<double>(std::max(duration, Duration::zero())).count();
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

const char* wordOf(ServiceActivity activity) {
  switch (activity) {
    case ServiceActivity::kNothing:
      return "";
    case ServiceActivity::kAsksForItsJob:
      return kActivityAsksForItsJob;
    case ServiceActivity::kConfiguresExtensions:
      return kActivityConfiguresExtensions;
    case ServiceActivity::kIsSubmitted:
      return kActivityIsSubmitted;
    case ServiceActivity::kAwaitsProcess:
      return kActivityAwaitsProcess;
    case ServiceActivity::kIsRemoved:
      return kActivityIsRemoved;
    case ServiceActivity::kIsRemovedBeforeItRuns:
      return kActivityIsRemovedBeforeItRuns;
  }
  return "";
}

// The extensions of the service whose last start has failed.
Array failedExtensions(const OperatorPicture& picture, std::string_view label) {
  Array failed;
  if (picture.extensionFailures.empty()) return failed;
  for (const std::string& name : picture.catalogue->extensionsOf(label)) {
    if (picture.extensionFailures.contains(name)) failed.push_back(Value(name));
  }
  return failed;
}

bool isMissingAnswer(const NSException& exception) {
  return exception.name == kNSPortTimeoutException || exception.name == kNSInvalidSendPortException;
}

std::string refusalIn(const NSException& exception) {
  return exception.reason.empty() ? exception.name : exception.name + ": " + exception.reason;
}

}  // namespace

Duration OperatorReport::until(Instant due) const { return due - environment_.runLoop.now(); }

void OperatorReport::addOperatingFacts(Dictionary& facts, const OperatorPicture& picture) const {
  const EvaluationTimers::DueTimes& timers = picture.timers;
  if (picture.idleReason) facts.set(kFactIdleReason, *picture.idleReason);
  facts.set(kFactOperatingMode, picture.operatingMode);
  facts.set(kFactIsInstallerAtWork, picture.isInstallerAtWork);
  if (picture.product) facts.set(kFactProduct, *picture.product);
  facts.set(kFactPrimary, picture.catalogue->primaryLabel());
  if (timers.reevaluation) facts.set(kFactRetryIn, inSeconds(until(*timers.reevaluation)));
  if (timers.settingsEvaluation) {
    // A timer that has fired outside the normal mode is kept, and delays further changes.
    if (*timers.settingsEvaluation > picture.taken) {
      facts.set(kFactSettingsEvaluationIn, inSeconds(until(*timers.settingsEvaluation)));
    } else {
      facts.set(kFactSettingsChangesWait, true);
    }
  }
  if (timers.watchDog) {
    constexpr Duration kPeriod = EvaluationTimers::kWatchDogInterval;
    const Duration since = environment_.runLoop.now() - (*timers.watchDog - kPeriod);
    facts.set(kFactWatchDogIn, inSeconds(kPeriod - since % kPeriod));
  }
}

void OperatorReport::addMarksOfService(Dictionary& facts, const OperatorPicture& picture,
                                       std::string_view label) const {
  const MonitoringRecords& records = picture.records;
  facts.set(kFactType, picture.catalogue->serviceType(label));
  facts.set(kFactIsMonitored, records.isServiceBeingTrackedForRespawn(label));
  facts.set(kFactIsStopped, records.isServiceBeingTrackedForUserClientShutdownRequest(label));
  const auto shutdown = picture.timers.shutdowns.find(label);
  if (shutdown != picture.timers.shutdowns.end()) {
    facts.set(kFactStopIn, inSeconds(until(shutdown->second)));
  }
  const auto work = picture.work.find(label);
  if (work != picture.work.end() && work->second.activity != ServiceActivity::kNothing) {
    facts.set(kFactActivity, wordOf(work->second.activity));
    facts.set(kFactActivityFor, inSeconds(-until(work->second.since)));
  }
  if (picture.unchecked.contains(label)) facts.set(kFactProgramIsUnchecked, true);
  if (Array failed = failedExtensions(picture, label); !failed.empty()) {
    facts.set(kFactFailedExtensions, std::move(failed));
  }
}

Value OperatorReport::factsOfService(const OperatorPicture& picture, std::string_view label) {
  return factsOf(picture, label, {.all = kProbeTime});
}

Value OperatorReport::factsOf(const OperatorPicture& picture, std::string_view label,
                              ProbeTimes left) {
  const ServiceCatalogue& catalogue = *picture.catalogue;
  const Value entry = catalogue.service(label);
  const bool isOfProduct = !entry.isNil();
  if (!isOfProduct && !catalogue.otherProductsServices().contains(label)) return {};
  Dictionary facts{{kFactLabel, label}, {kFactIsOfProduct, isOfProduct}};
  addOperatingFacts(facts, picture);
  if (!isOfProduct) {
    facts.set(kFactProducts, catalogue.otherProductsServices()[label]);
    facts.set(kFactReason, reasonOf({.isOfProduct = false}));
    return facts;
  }
  setIfKnown(facts, kFactProducts, entry["Products"]);
  addMarksOfService(facts, picture, label);
  const MonitoringRecords& records = picture.records;
  const std::string primary = catalogue.primaryLabel();
  ServiceSituation situation{
      .isPrimary = label == primary,
      .type = catalogue.serviceType(label),
      .operatingMode = picture.operatingMode,
      .isStopped = records.isServiceBeingTrackedForUserClientShutdownRequest(label),
      .isPrimaryStopped = records.isServiceBeingTrackedForUserClientShutdownRequest(primary),
      .isPrimaryOfProduct = !catalogue.service(primary).isNil(),
      .hasFailedExtension = facts.contains(kFactFailedExtensions)};
  facts.set(kFactIsPrimaryStopped, situation.isPrimaryStopped);
  addSystemFacts(facts, situation, entry);
  addProgramFacts(facts, situation, picture, label);
  situation.job = addJobFacts(facts, picture.jobs->find(label), JobHistoryDetail::kCountsAndEnds);
  addHealthFacts(facts, situation, picture, label);
  addSwitches(facts, situation, picture, label, left);
  if (situation.areFeaturesMalformed && !situation.isPrimary) situation.isRetried = false;
  facts.set(kFactIsRetried, situation.isRetried);
  facts.set(kFactReason, reasonOf(situation));
  setIfKnown(facts, kFactThrottle, catalogue.jobInfo(label)["ThrottleInterval"]);
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
  facts.set(kFactMinimumOSVersion, version);
  if (const auto needed = kernelMajorNumberForMinimumOSVersion(version)) {
    facts.set(kFactNeededKernel, *needed);
  }
}

// A program that no evaluation has needed is not checked, and does not count as damaged.
void OperatorReport::addProgramFacts(Dictionary& facts, ServiceSituation& situation,
                                     const OperatorPicture& picture, std::string_view label) const {
  situation.program = std::nullopt;
  const Value jobInfo = picture.catalogue->jobInfo(label);
  const std::string* program = jobInfo["Program"].string();
  if (!program) return;
  facts.set(kFactProgram, *program);
  facts.remove(kFactProgramIsUnchecked);  // The job host may have refused an intact one.
  situation.program = ProgramState::kSound;
  const auto found = picture.programs->find(label);
  if (found == picture.programs->end()) return;
  const ProgramFinding& finding = found->second;
  situation.program = finding.state;
  facts.set(kFactProgramCheckedAgo, inSeconds(-until(finding.at)));
  facts.set(kFactProgramExists, finding.state != ProgramState::kMissing);
  if (finding.state == ProgramState::kMissing) return;
  if (finding.state == ProgramState::kUnknown) {
    facts.set(kFactProgramIsUnchecked, true);
  } else {
    facts.set(kFactProgramIsIntact, finding.state == ProgramState::kSound);
  }
  if (finding.state != ProgramState::kSound) facts.set(kFactProgramFault, finding.fault);
  if (finding.identifier) facts.set(kFactProgramIdentifier, *finding.identifier);
  if (finding.protection) facts.set(kFactProgramProtection, protectionWord(*finding.protection));
}

ServiceJobState OperatorReport::addJobFacts(Dictionary& facts, const KnownJob& job,
                                            JobHistoryDetail detail) {
  const JobStatus& status = job.status;
  if (status.presence == JobStatus::Presence::kAbsent) return ServiceJobState::kAbsent;
  if (status.presence == JobStatus::Presence::kUnknown) {
    facts.set(kFactJobIsUnknown, true);
    return ServiceJobState::kUnknown;
  }
  Dictionary state;
  if (status.process) state.set(kJobProcessKey, *status.process);
  setIfKnown(state, kJobLastStatusKey, status.lastExitStatus);
  if (job.isLastExitStatusUnknown) state.set(kJobLastStatusUnknownKey, true);
  if (job.hasProgramChanged) state.set(kJobProgramChangedKey, true);
  if (job.history) state.set(kJobHistoryKey, valueOfHistory(*job.history, detail));
  facts.set(kFactJob, std::move(state));
  return status.process ? ServiceJobState::kRuns : ServiceJobState::kHasNoProcess;
}

void OperatorReport::addHealthFacts(Dictionary& facts, ServiceSituation& situation,
                                    const OperatorPicture& picture, std::string_view label) const {
  const Value health = picture.healthRecord[kHealthServices][label];
  setIfKnown(facts, kFactHealth, health);
  const bool isReady = health[kHealthStatus] != Value(std::to_underlying(HealthStatus::kUnready));
  const auto& retry = picture.timers.reevaluation;
  const auto stop = picture.timers.shutdowns.find(label);
  // A service that is stopped before the retry is no longer one of those that are not ready.
  const bool isStoppedBefore = stop != picture.timers.shutdowns.end() && stop->second < retry;
  situation.isRetried = !isReady && retry && !isStoppedBefore;
}

void OperatorReport::addSwitches(Dictionary& facts, ServiceSituation& situation,
                                 const OperatorPicture& picture, std::string_view label,
                                 ProbeTimes& left) {
  if (situation.type != kFeatureService) return;
  const auto configurations = featureConfigurations(*picture.catalogue, label);
  if (!configurations) {
    situation.areFeaturesMalformed = true;
    facts.set(kFactFeaturesAreMalformed, true);
    return;
  }
  Array all;
  for (const FeatureConfiguration& configuration : *configurations) {
    for (const auto& [key, expected] : configuration.switches) {
      Dictionary row{
          {kFactFeature, configuration.feature}, {kFactKey, key}, {kFactExpected, expected}};
      situation.switches.push_back(
          addSwitchFacts(row, picture, configuration, key, expected, left));
      row.set(kFactOutcome, wordOf(situation.switches.back()));
      all.push_back(std::move(row));
    }
  }
  facts.set(kFactSwitches, std::move(all));
}

SwitchOutcome OperatorReport::addSwitchFacts(Dictionary& facts, const OperatorPicture& picture,
                                             const FeatureConfiguration& configuration,
                                             const std::string& key, const Value& expected,
                                             ProbeTimes& left) {
  if (!configuration.source) return SwitchOutcome::kNoSource;
  facts.set(kFactSource, *configuration.source);
  const auto asked = picture.askedSources.find(*configuration.source);
  if (asked == picture.askedSources.end()) return SwitchOutcome::kNotAsked;
  SettingsClient* const client =
      asked->second != AskedSource::kMissing
          ? environment_.sources.configurationWithSelectorPrefix(asked->first)
          : nullptr;
  if (!client) return SwitchOutcome::kNoSource;
  const MessageResult current = probe(*client, *asked, key, left);
  if (!current && isMissingAnswer(current.error()))
    return addLastValue(facts, picture, asked->first, key, expected);
  if (!current) {
    facts.set(kFactRefusal, refusalIn(current.error()));
    return SwitchOutcome::kRefused;
  }
  setIfKnown(facts, kFactCurrent, *current);
  return outcomeOf(compareSwitch(expected, *current));
}

MessageResult OperatorReport::probe(SettingsClient& client,
                                    const std::pair<const std::string, AskedSource>& asked,
                                    const std::string& key, ProbeTimes& left) {
  const auto& [source, state] = asked;
  const Duration whole = timeFor(source, state);
  Duration& ofSource = left.ofSource.try_emplace(source, whole).first->second;
  const Duration time = std::min(ofSource, left.all);
  if (time <= Duration::zero())
    return std::unexpected(NSException{kNSPortTimeoutException, "", {}});
  const Instant start = environment_.runLoop.now();
  MessageResult current = client.probeObjectForKey(key, time);
  const Duration taken = environment_.runLoop.now() - start;
  ofSource -= taken;
  left.all -= taken;
  if (current || !isMissingAnswer(current.error())) {
    hungUntil_.erase(source);
  } else {
    ofSource = Duration::zero();  // It is not asked about its other switches.
    // A server that had only the rest of the time may just be slow.
    if (time == whole)
      hungUntil_[source] = environment_.runLoop.now() + NamedConnections::kHungServerPause;
  }
  return current;
}

// The last evaluation has decided by this value.
SwitchOutcome OperatorReport::addLastValue(Dictionary& facts, const OperatorPicture& picture,
                                           const std::string& source, const std::string& key,
                                           const Value& expected) const {
  const auto last = picture.lastValues.find({source, key});
  if (last == picture.lastValues.end()) return SwitchOutcome::kNoAnswer;
  setIfKnown(facts, kFactCurrent, last->second.value);
  facts.set(kFactCurrentAge, inSeconds(-until(last->second.at)));
  return outcomeOf(compareSwitch(expected, last->second.value));
}

Duration OperatorReport::timeFor(const std::string& source, AskedSource state) const {
  const auto hung = hungUntil_.find(source);
  const bool isHung = hung != hungUntil_.end() && environment_.runLoop.now() < hung->second;
  return isHung || state == AskedSource::kHung ? kShortProbeTime : kProbeTime;
}
