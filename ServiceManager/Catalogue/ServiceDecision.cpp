#include "ServiceManager/Catalogue/ServiceDecision.h"

#include <algorithm>

#include "ServiceManager/Catalogue/MinimumOSVersion.h"

using namespace platform;

namespace {

bool hasSwitchThat(SwitchOutcome outcome, const ServiceSituation& situation) {
  return std::ranges::find(situation.switches, outcome) != situation.switches.end();
}

std::string_view whyWanted(const ServiceSituation& situation) {
  if (situation.isPrimary) return kReasonPrimary;
  return situation.type == kFeatureService ? kReasonSwitch : kReasonCore;
}

// Empty if the service is wanted. The primary service is wanted whatever its type is.
std::string_view whyUnwanted(const ServiceSituation& situation) {
  if (situation.isPrimary || situation.type != kFeatureService) return {};
  if (hasSwitchThat(SwitchOutcome::kMatches, situation)) return {};
  if (situation.areFeaturesMalformed) return kReasonMalformedFeatures;
  if (situation.switches.empty()) return kReasonNoSwitch;
  if (hasSwitchThat(SwitchOutcome::kNotAsked, situation)) return kReasonNotEvaluated;
  if (hasSwitchThat(SwitchOutcome::kNoAnswer, situation)) return kReasonNoAnswer;
  if (hasSwitchThat(SwitchOutcome::kRefused, situation)) return kReasonRefused;
  return kReasonNoMatch;
}

// Empty if an evaluation may decide about the service. An evaluation begins with the primary
// service, so if that is stopped, no other service is evaluated, either.
std::string_view whyNotEvaluated(const ServiceSituation& situation) {
  if (situation.isStopped) return kReasonStopped;
  if (!situation.isPrimaryOfProduct) return kReasonPrimaryOtherProduct;
  switch (evaluationPermission(situation.operatingMode, situation.isPrimaryStopped)) {
    case EvaluationPermission::kGranted:
      return {};
    case EvaluationPermission::kInstallerIsAtWork:
      return kReasonInstaller;
    case EvaluationPermission::kPrimaryIsNotReady:
      // The primary service was started when this mode began.
      return situation.isPrimary ? std::string_view() : kReasonWaiting;
    case EvaluationPermission::kStoppedByUserInterface:
      return kReasonPrimaryStopped;
  }
  return {};
}

std::string_view whyItRuns(const ServiceSituation& situation) {
  if (situation.isStopped) return kReasonOutlivedStop;
  if (situation.support != OSSupport::kSupported) return kReasonUnsupported;
  const std::string_view unwanted = whyUnwanted(situation);
  return unwanted.empty() ? whyWanted(situation) : unwanted;
}

std::string_view whyItDoesNotRun(const ServiceSituation& situation) {
  if (situation.job == ServiceJobState::kUnknown) return kReasonUnknown;
  if (!situation.program) return kReasonNoJob;
  if (situation.support != OSSupport::kSupported) return kReasonUnsupported;
  const std::string_view unwanted = whyUnwanted(situation);
  // A retry starts the service in any mode and looks at neither stops nor switches.
  if (!situation.isRetried) {
    if (const auto refusal = whyNotEvaluated(situation); !refusal.empty()) return refusal;
    if (!unwanted.empty()) return unwanted;
  }
  if (situation.program == ProgramState::kMissing) return kReasonNoProgram;
  if (situation.program == ProgramState::kDamaged) return kReasonDamaged;
  if (situation.program == ProgramState::kUnknown) return kReasonUnchecked;
  if (!unwanted.empty()) return unwanted;
  if (situation.hasFailedExtension) return kReasonExtension;
  return situation.job == ServiceJobState::kHasNoProcess ? kReasonEnded : kReasonNotStarted;
}

}  // namespace

EvaluationPermission evaluationPermission(std::int64_t operatingMode, bool isStopped) {
  if (operatingMode == ORBOperatingModeInstaller) return EvaluationPermission::kInstallerIsAtWork;
  if (operatingMode == ORBOperatingModeWaitingForPrimaryService) {
    return EvaluationPermission::kPrimaryIsNotReady;
  }
  return isStopped ? EvaluationPermission::kStoppedByUserInterface : EvaluationPermission::kGranted;
}

OSSupport osSupport(const Value& minimumOSVersion, std::int64_t kernelMajorNumber) {
  if (minimumOSVersion.isNil()) return OSSupport::kSupported;
  const auto needed = kernelMajorNumberForMinimumOSVersion(minimumOSVersion);
  if (!needed) return OSSupport::kUnknownRelease;
  return kernelMajorNumber >= *needed ? OSSupport::kSupported : OSSupport::kTooOld;
}

SwitchOutcome outcomeOf(SwitchComparison comparison) {
  switch (comparison) {
    case SwitchComparison::kMatches:
      return SwitchOutcome::kMatches;
    case SwitchComparison::kDiffers:
      return SwitchOutcome::kDiffers;
    case SwitchComparison::kRaises:
      return SwitchOutcome::kClashes;
    case SwitchComparison::kAbsent:
      return SwitchOutcome::kAbsent;
  }
  return SwitchOutcome::kAbsent;
}

std::string_view reasonOf(const ServiceSituation& situation) {
  if (!situation.isOfProduct) return kReasonOtherProduct;
  return situation.job == ServiceJobState::kRuns ? whyItRuns(situation)
                                                 : whyItDoesNotRun(situation);
}
