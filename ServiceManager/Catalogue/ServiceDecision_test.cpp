#include "ServiceManager/Catalogue/ServiceDecision.h"

#include <gtest/gtest.h>

namespace {

using namespace platform;
using Switch = SwitchOutcome;

constexpr auto kInstallerMode = ORBOperatingModeInstaller;
constexpr auto kWaitingMode = ORBOperatingModeWaitingForPrimaryService;

struct DecisionRow {
  const char* what;
  ServiceSituation situation;
  std::string_view reason;
};

void expectReasons(const std::vector<DecisionRow>& rows, ServiceJobState job) {
  for (const DecisionRow& row : rows) {
    ServiceSituation situation = row.situation;
    situation.job = job;
    EXPECT_EQ(reasonOf(situation), row.reason) << row.what;
  }
}

ServiceSituation featureWith(std::vector<SwitchOutcome> switches, ServiceSituation situation = {}) {
  situation.type = kFeatureService;
  situation.switches = std::move(switches);
  return situation;
}

TEST(ServiceDecision, AServiceThatRunsHasOneOfTheseReasons) {
  expectReasons(
      {{"core", {}, "core"},
       {"the primary service", {.isPrimary = true}, "primary"},
       {"a primary feature service", featureWith({Switch::kDiffers}, {.isPrimary = true}),
        "primary"},
       {"one of two switches", featureWith({Switch::kDiffers, Switch::kMatches}), "switch"},
       {"no switch that asks for it", featureWith({Switch::kDiffers}), "noMatch"},
       {"a server without an answer", featureWith({Switch::kNoAnswer}), "noAnswer"},
       {"stopped", {.isStopped = true}, "outlivedStop"},
       {"too old", {.support = OSSupport::kTooOld}, "unsupported"},
       {"unknown release", {.support = OSSupport::kUnknownRelease}, "unsupported"},
       {"an installer", {.operatingMode = kInstallerMode}, "core"},
       {"waiting", {.operatingMode = kWaitingMode}, "core"},
       {"a primary service that is stopped", {.isPrimaryStopped = true}, "core"},
       {"a program that is gone", {.program = ProgramState::kMissing}, "core"},
       {"stopped, too old", {.isStopped = true, .support = OSSupport::kTooOld}, "outlivedStop"},
       {"too old, no match", featureWith({Switch::kDiffers}, {.support = OSSupport::kTooOld}),
        "unsupported"}},
      ServiceJobState::kRuns);
}

TEST(ServiceDecision, AServiceWithoutAJobHasItsFirstReason) {
  expectReasons(
      {{"no job", {.program = std::nullopt}, "noJob"},
       {"too old", {.support = OSSupport::kTooOld}, "unsupported"},
       {"unknown release", {.support = OSSupport::kUnknownRelease}, "unsupported"},
       {"stopped", {.isStopped = true}, "stopped"},
       {"an installer", {.operatingMode = kInstallerMode}, "installer"},
       {"waiting", {.operatingMode = kWaitingMode}, "waiting"},
       {"a primary service that is stopped", {.isPrimaryStopped = true}, "primaryStopped"},
       {"a primary service of another product",
        {.isPrimaryOfProduct = false},
        "primaryOtherProduct"},
       {"malformed features",
        {.type = kFeatureService, .areFeaturesMalformed = true},
        "malformedFeatures"},
       {"no switch", featureWith({}), "noSwitch"},
       {"a switch that was not evaluated", featureWith({Switch::kNotAsked}), "notEvaluated"},
       {"no answer", featureWith({Switch::kNoAnswer, Switch::kDiffers, Switch::kNoAnswer}),
        "noAnswer"},
       {"an exception", featureWith({Switch::kRefused, Switch::kDiffers}), "refused"},
       {"no match", featureWith({Switch::kAbsent, Switch::kClashes, Switch::kNoSource}), "noMatch"},
       {"a missing program", {.program = ProgramState::kMissing}, "noProgram"},
       {"a damaged program", {.program = ProgramState::kDamaged}, "damaged"},
       {"an unchecked program", {.program = ProgramState::kUnknown}, "unchecked"},
       {"a damaged feature", featureWith({Switch::kMatches}, {.program = ProgramState::kDamaged}),
        "damaged"},
       {"nothing", {}, "notStarted"},
       {"a failed extension", {.hasFailedExtension = true}, "extension"},
       {"a failed extension, no match",
        featureWith({Switch::kDiffers}, {.hasFailedExtension = true}), "noMatch"},
       {"a switch that matches", featureWith({Switch::kDiffers, Switch::kMatches}), "notStarted"}},
      ServiceJobState::kAbsent);
}

TEST(ServiceDecision, TheFirstOfTwoReasonsIsGiven) {
  expectReasons(
      {{"no job, too old", {.support = OSSupport::kTooOld, .program = std::nullopt}, "noJob"},
       {"no job, stopped", {.isStopped = true, .program = std::nullopt}, "noJob"},
       {"too old, stopped", {.isStopped = true, .support = OSSupport::kTooOld}, "unsupported"},
       {"too old, retried", {.isRetried = true, .support = OSSupport::kTooOld}, "unsupported"},
       {"too old, no match", featureWith({Switch::kDiffers}, {.support = OSSupport::kTooOld}),
        "unsupported"},
       {"stopped, an installer", {.operatingMode = kInstallerMode, .isStopped = true}, "stopped"},
       {"stopped, waiting", {.operatingMode = kWaitingMode, .isStopped = true}, "stopped"},
       {"stopped, a foreign primary service",
        {.isStopped = true, .isPrimaryOfProduct = false},
        "stopped"},
       {"a foreign primary service, no match",
        featureWith({Switch::kDiffers}, {.isPrimaryOfProduct = false}), "primaryOtherProduct"},
       {"stopped, no match", featureWith({Switch::kDiffers}, {.isStopped = true}), "stopped"},
       {"stopped, a missing program",
        {.isStopped = true, .program = ProgramState::kMissing},
        "stopped"},
       {"the stopped primary service",
        {.isPrimary = true, .isStopped = true, .isPrimaryStopped = true},
        "stopped"},
       {"an installer, the primary service stopped",
        {.operatingMode = kInstallerMode, .isPrimaryStopped = true},
        "installer"},
       {"waiting, the primary service stopped",
        {.operatingMode = kWaitingMode, .isPrimaryStopped = true},
        "waiting"},
       {"an installer, no match",
        featureWith({Switch::kDiffers}, {.operatingMode = kInstallerMode}), "installer"},
       {"waiting, no match", featureWith({Switch::kDiffers}, {.operatingMode = kWaitingMode}),
        "waiting"},
       {"the primary service stopped, no match",
        featureWith({Switch::kDiffers}, {.isPrimaryStopped = true}), "primaryStopped"},
       {"an installer, a missing program",
        {.operatingMode = kInstallerMode, .program = ProgramState::kMissing},
        "installer"},
       {"not evaluated, no answer", featureWith({Switch::kNoAnswer, Switch::kNotAsked}),
        "notEvaluated"},
       {"an exception, no answer", featureWith({Switch::kRefused, Switch::kNoAnswer}), "noAnswer"},
       {"no match, a missing program",
        featureWith({Switch::kDiffers}, {.program = ProgramState::kMissing}), "noMatch"}},
      ServiceJobState::kAbsent);
}

TEST(ServiceDecision, ThePrimaryServiceDoesNotWaitForItself) {
  expectReasons(
      {{"waiting", {.isPrimary = true, .operatingMode = kWaitingMode}, "notStarted"},
       {"an installer", {.isPrimary = true, .operatingMode = kInstallerMode}, "installer"},
       {"waiting, a missing program",
        {.isPrimary = true, .operatingMode = kWaitingMode, .program = ProgramState::kMissing},
        "noProgram"},
       {"a feature service", featureWith({Switch::kDiffers}, {.isPrimary = true}), "notStarted"}},
      ServiceJobState::kAbsent);
}

// The retry starts every service that is not ready, whatever an evaluation would do with it.
TEST(ServiceDecision, ARetryIgnoresModeStopsAndSwitches) {
  constexpr auto kMissing = ProgramState::kMissing;
  expectReasons(
      {{"an installer",
        {.operatingMode = kInstallerMode, .isRetried = true, .program = kMissing},
        "noProgram"},
       {"waiting",
        {.operatingMode = kWaitingMode, .isRetried = true, .program = kMissing},
        "noProgram"},
       {"the primary service stopped",
        {.isPrimaryStopped = true, .isRetried = true, .program = kMissing},
        "noProgram"},
       {"stopped", {.isStopped = true, .isRetried = true, .program = kMissing}, "noProgram"},
       {"no match", featureWith({Switch::kDiffers}, {.isRetried = true, .program = kMissing}),
        "noProgram"},
       {"no match, a sound program", featureWith({Switch::kDiffers}, {.isRetried = true}),
        "noMatch"},
       {"damaged", {.isRetried = true, .program = ProgramState::kDamaged}, "damaged"},
       {"a sound program", {.operatingMode = kInstallerMode, .isRetried = true}, "notStarted"}},
      ServiceJobState::kAbsent);
}

TEST(ServiceDecision, AJobWithoutAProcessHasEnded) {
  expectReasons({{"core", {}, "ended"},
                 {"retried", {.operatingMode = kInstallerMode, .isRetried = true}, "ended"},
                 {"stopped", {.isStopped = true}, "stopped"},
                 {"no match", featureWith({Switch::kDiffers}), "noMatch"},
                 {"damaged", {.program = ProgramState::kDamaged}, "damaged"}},
                ServiceJobState::kHasNoProcess);
}

TEST(ServiceDecision, WithoutTheJobHostsAnswerTheReasonIsUnknown) {
  expectReasons({{"core", {}, "unknown"},
                 {"no job", {.program = std::nullopt}, "unknown"},
                 {"stopped", {.isStopped = true}, "unknown"}},
                ServiceJobState::kUnknown);
}

TEST(ServiceDecision, AServiceOfAnotherProductHasNoOtherReason) {
  for (const auto job : {ServiceJobState::kAbsent, ServiceJobState::kRuns}) {
    EXPECT_EQ(reasonOf({.isOfProduct = false, .isStopped = true, .job = job}), "otherProduct");
  }
}

TEST(ServiceDecision, TheModeRefusesAnEvaluationBeforeAStopDoes) {
  using enum EvaluationPermission;
  EXPECT_EQ(evaluationPermission(ORBOperatingModeNormal, false), kGranted);
  EXPECT_EQ(evaluationPermission(ORBOperatingModeNormal, true), kStoppedByUserInterface);
  for (const bool isStopped : {false, true}) {
    EXPECT_EQ(evaluationPermission(kInstallerMode, isStopped), kInstallerIsAtWork);
    EXPECT_EQ(evaluationPermission(kWaitingMode, isStopped), kPrimaryIsNotReady);
  }
}

TEST(ServiceDecision, AServiceRunsFromItsReleaseOn) {
  EXPECT_EQ(osSupport("10.11", 14), OSSupport::kTooOld);
  EXPECT_EQ(osSupport("10.11", 15), OSSupport::kSupported);
  EXPECT_EQ(osSupport("10.11", 16), OSSupport::kSupported);
  EXPECT_EQ(osSupport("10.12", 16), OSSupport::kUnknownRelease);
  EXPECT_EQ(osSupport(10.11, 16), OSSupport::kUnknownRelease);
  EXPECT_EQ(osSupport(Value(), 0), OSSupport::kSupported);
}

TEST(ServiceDecision, EachComparisonIsAnOutcome) {
  EXPECT_EQ(outcomeOf(SwitchComparison::kMatches), Switch::kMatches);
  EXPECT_EQ(outcomeOf(SwitchComparison::kDiffers), Switch::kDiffers);
  EXPECT_EQ(outcomeOf(SwitchComparison::kRaises), Switch::kClashes);
  EXPECT_EQ(outcomeOf(SwitchComparison::kAbsent), Switch::kAbsent);
}

}  // namespace
