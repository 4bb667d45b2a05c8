// One file, because the verdict and the details are two views of the same facts, which only this
// file reads.

#include "Tools/servicemanagerctl/Explanation.h"

#include <algorithm>
#include <iterator>
#include <set>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Platform/CodeSigning/CodeSignature.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"
#include "ServiceManager/Catalogue/OperatingMode.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/Supervision/HealthRecord.h"
#include "Tools/servicemanagerctl/BusyReport.h"
#include "Tools/servicemanagerctl/HealthReport.h"
#include "Tools/servicemanagerctl/JobsReport.h"
#include "Tools/servicemanagerctl/NextStep.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using Json = nlohmann::ordered_json;

// The facts, read on demand.
class Facts {
 public:
  explicit Facts(const Value& facts)
      : facts_(facts), job_(jobState(text(kFactLabel), facts[kFactJob])) {}

  bool is(const char* key) const { return facts_[key].boolean().value_or(false); }
  bool has(const char* key) const { return !facts_[key].isNil(); }
  // Escaped for a terminal.
  std::string text(const char* key) const {
    const std::string* text = facts_[key].string();
    return text ? plain(*text) : "";
  }
  std::int64_t number(const char* key) const { return facts_[key].integer().value_or(0); }
  const Value& operator[](const char* key) const { return facts_[key]; }
  const Value& all() const { return facts_; }

  std::string label() const { return text(kFactLabel); }
  std::string reason() const { return text(kFactReason); }
  const JobState& job() const { return job_; }
  std::int64_t mode() const { return number(kFactOperatingMode); }
  bool isPrimary() const { return label() == text(kFactPrimary); }
  bool isFeature() const { return text(kFactType) == kFeatureService; }
  const Array& switches() const {
    static const Array kNone;
    const Array* switches = facts_[kFactSwitches].array();
    return switches ? *switches : kNone;
  }
  // The first switch with that outcome, or nil.
  Value switchThat(std::string_view outcome) const {
    const auto found = std::ranges::find_if(switches(), [&](const Value& row) {
      return row[kFactOutcome].string() && *row[kFactOutcome].string() == outcome;
    });
    return found == switches().end() ? Value() : *found;
  }

 private:
  const Value& facts_;
  const JobState job_;
};

std::string inSeconds(const Value& seconds) {
  return fmt::format("{:.1f} s", seconds.real().value_or(0));
}

std::string plainOrShown(const Value& value) {
  return value.string() ? plain(*value.string()) : shown(value);
}

std::string namesIn(const Value& names) {
  std::vector<std::string> texts;
  if (names.array()) {
    for (const Value& name : *names.array()) texts.push_back(plainOrShown(name));
  }
  return texts.empty() ? "no product" : fmt::format("{}", fmt::join(texts, ", "));
}

std::string nameOfSwitch(const Value& row) {
  return fmt::format("\"{}\" of feature \"{}\"", plainOrShown(row[kFactKey]),
                     plainOrShown(row[kFactFeature]));
}

std::string textOfUnknownRelease(const Facts& facts) {
  const Value& version = facts[kFactMinimumOSVersion];
  if (!version.string()) {
    return fmt::format("its \"MinimumOSVersion\" in the catalogue is {}, which is no text",
                       shown(version));
  }
  return fmt::format("it asks for release {}, which is not known",
                     facts.text(kFactMinimumOSVersion));
}

// The names of the settings servers that have a switch with this outcome, each once.
std::string sourcesWith(const char* outcome, const Facts& facts) {
  std::set<std::string> names;
  for (const Value& row : facts.switches()) {
    if (row[kFactOutcome] == Value(outcome)) names.insert(plainOrShown(row[kFactSource]));
  }
  return fmt::format("{}", fmt::join(names, ", "));
}

// The text of the service manager's reason. Each is empty if the reason is not one of these.

std::string whyWanted(const Facts& facts) {
  const std::string reason = facts.reason();
  if (reason == kReasonPrimary) return "every other service waits for it";
  if (reason == kReasonCore) return "every core service of the product is to run";
  if (reason == kReasonSwitch) {
    return fmt::format("switch {} asks for it", nameOfSwitch(facts.switchThat(kOutcomeMatches)));
  }
  return {};
}

std::string whyUnwanted(const Facts& facts) {
  const std::string reason = facts.reason();
  if (reason == kReasonMalformedFeatures) {
    return "the features that the catalogue gives it are no list, so that it is neither started "
           "nor stopped";
  }
  if (reason == kReasonNoSwitch) return "no switch could ask for it";
  if (reason == kReasonNotEvaluated) return "its switches have not been looked at yet";
  if (reason == kReasonNoAnswer) {
    return "no switch asks for it that could be looked at, and no answer came from "
           "the settings server of " +
           sourcesWith(kOutcomeNoAnswer, facts);
  }
  if (reason == kReasonRefused) {
    return "no switch asks for it that could be looked at, and an exception came from the "
           "settings server of " +
           sourcesWith(kOutcomeRefused, facts);
  }
  if (reason == kReasonNoMatch) return "none of its switches asks for it";
  return {};
}

std::string whyItIsNotToRun(const Facts& facts) {
  const std::string reason = facts.reason();
  if (reason == kReasonOutlivedStop) return "it was asked to be stopped";
  if (reason != kReasonUnsupported) return {};
  return facts.has(kFactNeededKernel) ? "this system is too old for it"
                                      : textOfUnknownRelease(facts);
}

std::string whatForbidsIt(const Facts& facts) {
  const std::string reason = facts.reason();
  if (reason == kReasonNoJob) return "the catalogue names no program that could be run for it";
  if (reason == kReasonUnsupported) {
    return facts.has(kFactNeededKernel)
               ? fmt::format("it needs release {}, and this system is older",
                             facts.text(kFactMinimumOSVersion))
               : textOfUnknownRelease(facts);
  }
  if (reason == kReasonStopped) {
    return fmt::format("it was asked to be stopped; \"servicemanagerctl start {}\" starts it",
                       facts.label());
  }
  if (reason == kReasonInstaller) {
    return "an installer is at work, and it is not started until that has finished";
  }
  if (reason == kReasonWaiting) {
    return fmt::format(
        "the configuration server is not up, and it is not started until that is; "
        "\"servicemanagerctl explain {}\" tells of it",
        facts.text(kFactPrimary));
  }
  if (reason == kReasonPrimaryStopped) {
    return "the primary service was asked to be stopped, and without it no other is started";
  }
  if (reason == kReasonPrimaryOtherProduct) {
    return fmt::format(
        "the primary service {} does not belong to the installed product, and without it no other "
        "is started",
        facts.text(kFactPrimary));
  }
  return {};
}

std::string whyItIsDown(const Facts& facts) {
  const std::string reason = facts.reason();
  if (reason == kReasonUnknown) return "the job host gives no answer";
  if (reason == kReasonNoProgram) {
    return fmt::format("its program {} is not there", facts.text(kFactProgram));
  }
  if (reason == kReasonDamaged) {
    return fmt::format("its program is damaged or not signed as it should be: {}",
                       facts.text(kFactProgramFault));
  }
  if (reason == kReasonUnchecked) {
    return fmt::format("its program can't be checked now, and is checked again: {}",
                       facts.text(kFactProgramFault));
  }
  if (reason == kReasonExtension) return lackOfExtensions(facts.all());
  if (reason == kReasonEnded) {
    return fmt::format(
        "it is wanted, and its process has ended ({}); the job host starts it again "
        "when its throttle allows it",
        inWords(facts.job().lastExit));
  }
  if (reason == kReasonNotStarted) {
    return "it is wanted but was not started; \"servicemanagerctl log\" tells why";
  }
  return {};
}

// The verdict, for a service that is managed here.

constexpr char kNoReason[] = "the service manager gives no reason that this tool knows";

std::string verdictOfRunning(const Facts& facts) {
  const std::string is = fmt::format("{} runs as process {}", facts.label(), *facts.job().process);
  if (const std::string why = whyWanted(facts); !why.empty()) {
    return fmt::format("{}, because {}.", is, why);
  }
  if (const std::string why = whyItIsNotToRun(facts); !why.empty()) {
    return fmt::format("{}, although {}.", is, why);
  }
  if (facts.reason() == kReasonMalformedFeatures)
    return fmt::format("{}, although {}.", is, whyUnwanted(facts));
  if (const std::string why = whyUnwanted(facts); !why.empty()) {
    return fmt::format("{}, although {}, for the moment or until the next evaluation.", is, why);
  }
  return fmt::format("{}; {}.", is, kNoReason);
}

std::string verdictOfNotRunning(const Facts& facts) {
  const std::string is = facts.is(kFactJobIsUnknown)
                             ? fmt::format("Whether {} runs is not known", facts.label())
                             : fmt::format("{} does not run", facts.label());
  for (const auto why : {whatForbidsIt, whyUnwanted, whyItIsDown}) {
    if (const std::string text = why(facts); !text.empty()) return fmt::format("{}: {}.", is, text);
  }
  return fmt::format("{}: {}.", is, kNoReason);
}

// The details.

std::string aboutProduct(const Facts& facts) {
  const std::string belongs = "belongs to " + namesIn(facts[kFactProducts]);
  return fmt::format("{}; installed is {}", belongs, facts.text(kFactProduct));
}

std::string aboutSystem(const Facts& facts) {
  if (!facts.has(kFactMinimumOSVersion)) return "runs on any release";
  if (!facts.has(kFactNeededKernel)) return textOfUnknownRelease(facts) + ": never started";
  const std::string version = facts.text(kFactMinimumOSVersion);
  return fmt::format("needs release {} (kernel {}), and this is kernel {}: {}", version,
                     facts.number(kFactNeededKernel), facts.number(kFactKernel),
                     facts.is(kFactIsSupported) ? "supported" : "not supported");
}

std::string aboutMode(const Facts& facts) {
  switch (facts.mode()) {
    case ORBOperatingModeNormal:
      return "normal";
    case ORBOperatingModeInstaller:
      return "an installer is at work";
    case ORBOperatingModeWaitingForPrimaryService:
      return facts.is(kFactIsInstallerAtWork)
                 ? "waiting for the configuration server, and an installer is at work"
                 : "waiting for the configuration server";
    default:
      return fmt::format("{}, which this tool does not know", facts.mode());
  }
}

std::string aboutProgram(const Facts& facts) {
  if (!facts.has(kFactProgram)) return "none";
  const std::string path = facts.text(kFactProgram);
  if (!facts.has(kFactProgramExists)) return path + ", not checked yet";
  if (!facts.is(kFactProgramExists)) return path + ", which is not there";
  if (facts.is(kFactProgramIsUnchecked)) {
    return fmt::format("{}, which can't be checked now: {}", path, facts.text(kFactProgramFault));
  }
  if (!facts.is(kFactProgramIsIntact)) {
    return fmt::format("{}, refused: {}", path, facts.text(kFactProgramFault));
  }
  return facts.has(kFactProgramIdentifier)
             ? fmt::format("{}, intact, signed as {}", path, facts.text(kFactProgramIdentifier))
             : path + ", intact";
}

std::string aboutValue(const Value& row) {
  const std::string current = shown(row[kFactCurrent]);
  if (row[kFactCurrentAge].isNil()) return ", is " + current;
  return fmt::format(", was {} {} ago (its settings server gives no answer now)", current,
                     inSeconds(row[kFactCurrentAge]));
}

std::string aboutSwitch(const Value& row) {
  const std::string* given = row[kFactOutcome].string();
  const std::string outcome = given ? *given : "";
  const std::string source = row[kFactSource].isNil() ? "" : plainOrShown(row[kFactSource]) + ": ";
  const std::string name =
      fmt::format("{}{}, expected {}", source, nameOfSwitch(row), shown(row[kFactExpected]));
  const std::string is = aboutValue(row);
  if (outcome == kOutcomeMatches) return name + is + ": asks for it";
  if (outcome == kOutcomeDiffers) return name + is + ": does not";
  if (outcome == kOutcomeClashes) return name + is + ", which is of another kind: does not";
  if (outcome == kOutcomeAbsent) return name + ", and there is no such setting now: does not";
  if (outcome == kOutcomeNoAnswer)
    return name + ", and its settings server gives no answer: does not";
  if (outcome == kOutcomeRefused) {
    return fmt::format("{}, and its settings server answers with {}: does not", name,
                       plainOrShown(row[kFactRefusal]));
  }
  if (outcome == kOutcomeNotAsked) return name + ", not looked at yet";
  return name + ", and there is no such settings server: does not";
}

std::string aboutCrashes(std::int64_t crashes) {
  if (crashes == 0) return "has not ended by itself since the last summary";
  if (crashes == 1) return "has ended by itself once since the last summary";
  return fmt::format("has ended by itself {} times since the last summary", crashes);
}

std::string aboutHealth(const Facts& facts) {
  const Value& health = facts[kFactHealth];
  const auto status = health[kHealthStatus].integer();
  const std::string crashes = aboutCrashes(health[kHealthCrashes].integer().value_or(0));
  if (!status || *status < 0 || *status > 3) return "not supervised; " + crashes;
  return fmt::format("{}; {}", nameOf(static_cast<HealthStatus>(*status)), crashes);
}

std::string aboutLastExit(const Facts& facts) {
  if (facts.is(kFactJobIsUnknown)) return "not known";
  // A stop removes the job, and with it the job host forgets this.
  if (!facts.has(kFactJob)) return "not known, since it has no job now";
  const JobState::Ending ending = facts.job().lastExit;
  return ending == JobState::Ending{} ? "none yet" : inWords(ending);
}

std::string aboutRetry(const Facts& facts) {
  if (facts.is(kFactIsRetried)) return "in " + inSeconds(facts[kFactRetryIn]);
  const bool isEvaluated = evaluationPermission(facts.mode(), facts.is(kFactIsPrimaryStopped)) ==
                           EvaluationPermission::kGranted;
  if (isEvaluated && facts.has(kFactSettingsEvaluationIn)) {
    return fmt::format("everything is evaluated in {}, since a setting was changed",
                       inSeconds(facts[kFactSettingsEvaluationIn]));
  }
  if (facts.mode() == ORBOperatingModeWaitingForPrimaryService && facts.has(kFactWatchDogIn)) {
    return fmt::format("when the configuration server announces itself, or in {}",
                       inSeconds(facts[kFactWatchDogIn]));
  }
  return "none is due";
}

std::vector<std::pair<std::string, std::string>> detailsOf(const Facts& facts) {
  std::vector<std::pair<std::string, std::string>> details{{"product", aboutProduct(facts)}};
  if (!facts.is(kFactIsOfProduct)) return details;
  details.emplace_back("system", aboutSystem(facts));
  if (auto work = mainThreadsWork(facts.all()); !work.empty())
    details.emplace_back("main thread", std::move(work));
  const char* const type = facts.isFeature() ? "feature service" : "core service";
  details.emplace_back("type", facts.isPrimary() ? "the primary service" : type);
  details.emplace_back("mode", aboutMode(facts));
  details.emplace_back("user interface", facts.is(kFactIsStopped) ? "has asked for it to be stopped"
                                                                  : "has not asked for a stop");
  for (const Value& row : facts.switches()) details.emplace_back("switch", aboutSwitch(row));
  if (facts.is(kFactFeaturesAreMalformed)) details.emplace_back("switch", "features are no list");
  details.emplace_back("program", aboutProgram(facts));
  if (facts.has(kFactProgramProtection)) {
    details.emplace_back("kept by", describeProtection(facts.text(kFactProgramProtection)));
  }
  details.emplace_back("process", facts.job().process ? fmt::format("{}", *facts.job().process)
                                  : facts.is(kFactJobIsUnknown) ? "not known"
                                                                : "none");
  details.emplace_back("last exit", aboutLastExit(facts));
  details.emplace_back("watched", facts.is(kFactIsMonitored) ? "yes" : "no");
  if (auto work = workOnService(facts.all()); !work.empty())
    details.emplace_back("now", std::move(work));
  if (facts.has(kFactHealth)) details.emplace_back("health", aboutHealth(facts));
  // A process that has ended meanwhile is not stopped any more.
  if (facts.has(kFactStopIn) && facts.job().process) {
    details.emplace_back("stop", fmt::format("will be stopped in {}, since no switch asked for it",
                                             inSeconds(facts[kFactStopIn])));
  }
  details.emplace_back("next retry", aboutRetry(facts));
  if (auto step = nextStep(facts.all()); !step.empty())
    details.emplace_back("next step", std::move(step));
  if (facts.is(kFactSettingsChangesWait)) {
    details.emplace_back("settings",
                         "a change came outside normal mode; further ones are evaluated "
                         "once everything has been in normal mode again");
  }
  return details;
}

}  // namespace

Explanation explain(const Value& value) {
  const Facts facts(value);
  Explanation explanation{
      .runs = facts.job().process.has_value(), .reason = {}, .verdict = {}, .details = {}};
  explanation.details = detailsOf(facts);
  explanation.reason = facts.reason();
  if (explanation.reason == kReasonOtherProduct) {
    explanation.verdict =
        fmt::format("{} is not managed here: it belongs to {}, and installed is {}.", facts.label(),
                    namesIn(facts[kFactProducts]), facts.text(kFactProduct));
  } else {
    explanation.verdict = explanation.runs ? verdictOfRunning(facts) : verdictOfNotRunning(facts);
  }
  return explanation;
}
