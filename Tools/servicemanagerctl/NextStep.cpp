#include "Tools/servicemanagerctl/NextStep.h"

#include <string_view>

#include <fmt/format.h>

#include "ServiceManager/Catalogue/OperatingMode.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

std::string plainFact(const Value& value) { return value.string() ? plain(*value.string()) : ""; }

// The first switch with that outcome, or nil.
Value firstSwitch(const Value& facts, std::string_view outcome) {
  const Array* switches = facts[kFactSwitches].array();
  if (!switches) return {};
  for (const Value& row : *switches) {
    if (row[kFactOutcome] == Value(outcome)) return row;
  }
  return {};
}

std::string toTurnTheSwitchOn(const Value& facts) {
  for (const char* outcome : {kOutcomeDiffers, kOutcomeAbsent, kOutcomeClashes}) {
    const Value row = firstSwitch(facts, outcome);
    if (row.isNil()) continue;
    return fmt::format("\"servicemanagerctl settings set {} {} {}\" turns the switch on",
                       plainFact(row[kFactSource]), plainFact(row[kFactKey]),
                       shown(row[kFactExpected]));
  }
  return "correct the feature's \"Source\" in the catalogue: there is no such settings server";
}

std::string toAskTheServer(const Value& facts, std::string_view outcome) {
  return fmt::format("\"servicemanagerctl settings list {}\" tells whether its server answers",
                     plainFact(firstSwitch(facts, outcome)[kFactSource]));
}

std::string toStartAgain(const Value& facts, const std::string& label) {
  const auto evaluated = facts[kFactSettingsEvaluationIn].real();
  if (evaluated) return fmt::format("wait: everything is evaluated in {:.1f} s", *evaluated);
  return fmt::format(
      "\"servicemanagerctl log\" tells why; \"servicemanagerctl start {}\" tries again", label);
}

std::string whileItRuns(const Value& facts) {
  const bool isPrimary = facts[kFactLabel] == facts[kFactPrimary];
  if (!isPrimary || facts[kFactOperatingMode] != Value(ORBOperatingModeWaitingForPrimaryService))
    return {};
  return fmt::format(
      "it runs, but does not serve \"com.vantor.service.configd.status\", so no other service is "
      "started: see its own log, or \"servicemanagerctl restart {}\"",
      plainFact(facts[kFactLabel]));
}

}  // namespace

std::string nextStep(const Value& facts) {
  if (!facts[kFactJob]["PID"].isNil()) return whileItRuns(facts);
  const std::string label = plainFact(facts[kFactLabel]);
  const std::string reason = plainFact(facts[kFactReason]);
  const std::string primary = plainFact(facts[kFactPrimary]);
  if (reason == kReasonNoJob) return "give it a \"JobSpec\" with a \"Program\" in the catalogue";
  if (reason == kReasonUnsupported)
    return facts[kFactNeededKernel].isNil() ? "correct its \"MinimumOSVersion\" in the catalogue"
                                            : "install a newer release of the system";
  if (reason == kReasonStopped)
    return fmt::format("\"servicemanagerctl start {}\" starts it", label);
  if (reason == kReasonInstaller)
    return "wait for the installer; if it is gone, \"servicemanagerctl installer end\"";
  if (reason == kReasonWaiting)
    return fmt::format("\"servicemanagerctl explain {}\" tells of the configuration server",
                       primary);
  if (reason == kReasonPrimaryStopped)
    return fmt::format("\"servicemanagerctl start {}\" starts the primary service", primary);
  if (reason == kReasonPrimaryOtherProduct) return "correct \"Primary\" in the catalogue";
  if (reason == kReasonNoProgram) return "install the product again: its program is missing";
  if (reason == kReasonDamaged)
    return fmt::format("\"servicemanagerctl execinfo {}\" tells who signed it; install it again",
                       plainFact(facts[kFactProgram]));
  if (reason == kReasonUnchecked) return "wait: its program is checked again by itself";
  if (reason == kReasonExtension) return "\"servicemanagerctl extensions\" tells why";
  if (reason == kReasonEnded)
    return fmt::format("\"servicemanagerctl show {}\" tells how it ended and when it starts",
                       label);
  if (reason == kReasonMalformedFeatures) return "make its \"Features\" in the catalogue a list";
  if (reason == kReasonNoSwitch) return "give one of its features a switch in the catalogue";
  if (reason == kReasonNotEvaluated)
    return "\"servicemanagerctl reload-settings\" looks at its switches";
  if (reason == kReasonNoAnswer) return toAskTheServer(facts, kOutcomeNoAnswer);
  if (reason == kReasonRefused) return toAskTheServer(facts, kOutcomeRefused);
  if (reason == kReasonNoMatch) return toTurnTheSwitchOn(facts);
  if (reason == kReasonUnknown) return "\"servicemanagerctl jobs list\" tells whether it answers";
  return reason == kReasonNotStarted ? toStartAgain(facts, label) : std::string();
}
