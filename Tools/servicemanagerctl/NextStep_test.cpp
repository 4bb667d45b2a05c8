#include "Tools/servicemanagerctl/NextStep.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace platform;
using testing::HasSubstr;

Value agentThat(std::string_view reason, Dictionary more = {}) {
  Dictionary facts{{kFactLabel, "agent"}, {kFactPrimary, "configd"}, {kFactReason, reason}};
  for (const auto& [key, value] : more) facts.set(key, value);
  return facts;
}

TEST(NextStepTest, EachReasonAgainstAServiceHasOne) {
  for (const std::string_view reason : {kReasonUnknown,
                                        kReasonNoJob,
                                        kReasonStopped,
                                        kReasonInstaller,
                                        kReasonWaiting,
                                        kReasonPrimaryStopped,
                                        kReasonPrimaryOtherProduct,
                                        kReasonNoProgram,
                                        kReasonDamaged,
                                        kReasonUnchecked,
                                        kReasonExtension,
                                        kReasonEnded,
                                        kReasonNotStarted,
                                        kReasonUnsupported,
                                        kReasonMalformedFeatures,
                                        kReasonNoSwitch,
                                        kReasonNotEvaluated,
                                        kReasonNoAnswer,
                                        kReasonRefused,
                                        kReasonNoMatch})
    EXPECT_NE(nextStep(agentThat(reason)), "") << reason;
}

TEST(NextStepTest, ASwitchThatIsOffHasItsCommand) {
  const Value row = Dictionary{{kFactSource, "common"},
                               {kFactKey, "WebFilterEnabled"},
                               {kFactExpected, 1},
                               {kFactOutcome, kOutcomeDiffers}};
  EXPECT_EQ(nextStep(agentThat(kReasonNoMatch, {{kFactSwitches, Array{row}}})),
            "\"servicemanagerctl settings set common WebFilterEnabled 1\" turns the switch on");
}

TEST(NextStepTest, AChangedSettingIsWaitedFor) {
  EXPECT_EQ(nextStep(agentThat(kReasonNotStarted, {{kFactSettingsEvaluationIn, 1.9}})),
            "wait: everything is evaluated in 1.9 s");
}

TEST(NextStepTest, APrimaryServiceThatServesNothingIsNoCircle) {
  const Dictionary job{{"PID", 7}};
  EXPECT_THAT(
      nextStep(agentThat(kReasonPrimary,
                         {{kFactPrimary, "agent"}, {kFactJob, job}, {kFactOperatingMode, 2}})),
      HasSubstr("does not serve \"com.vantor.service.configd.status\""));
  EXPECT_EQ(nextStep(agentThat(kReasonCore, {{kFactJob, job}, {kFactOperatingMode, 2}})), "");
}

}  // namespace
