#include "Tools/servicemanagerctl/ActionRemarks.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"

namespace {

using namespace platform;
using testing::HasSubstr;

Value factsOfAgent(Dictionary more) {
  Dictionary facts{{kFactLabel, "agent"}, {kFactIsOfProduct, true}, {kFactReason, "core"}};
  for (const auto& [key, value] : more) facts.set(key, value);
  return facts;
}
Dictionary runningJob() { return {{"PID", 7}}; }

TEST(ActionRemarksTest, AStartOfAWantedServiceNeedsNoRemark) {
  EXPECT_EQ(remarkAfterStart(factsOfAgent({{kFactJob, runningJob()}})), "");
}

TEST(ActionRemarksTest, AStartOfAServiceThatIsSwitchedOffWillBeUndone) {
  const Value facts = factsOfAgent({{kFactJob, runningJob()},
                                    {kFactReason, "noMatch"},
                                    {kFactType, "FeatureService"},
                                    {kFactStopIn, 2.6}});
  EXPECT_THAT(remarkAfterStart(facts),
              HasSubstr("agent will be stopped in 2.6 s, since no switch asks for it"));
  EXPECT_THAT(remarkAfterStart(factsOfAgent({{kFactJob, runningJob()}, {kFactReason, "noMatch"}})),
              HasSubstr("although none of its switches asks for it"));
}

TEST(ActionRemarksTest, AFailedStartHasItsReason) {
  EXPECT_EQ(remarkAfterStart(factsOfAgent({{kFactReason, "noProgram"}, {kFactProgram, "/agent"}})),
            "agent does not run: its program /agent is not there.");
}

TEST(ActionRemarksTest, AStopThatARetryUndoesIsReported) {
  EXPECT_EQ(remarkAfterStop(factsOfAgent({{kFactReason, "stopped"}})), "");
  EXPECT_EQ(remarkAfterStop(factsOfAgent(
                {{kFactReason, "stopped"}, {kFactIsRetried, true}, {kFactRetryIn, 12.0}})),
            "agent was not ready before, and will be started again in 12.0 s");
}

TEST(ActionRemarksTest, AStopLastsUntilTheServiceManagerIsStartedAgain) {
  EXPECT_EQ(lastingOfStop({"agent"}),
            "it stays stopped until \"servicemanagerctl start agent\", or until the service "
            "manager is started again");
  EXPECT_THAT(lastingOfStop({"a", "b"}), HasSubstr("they stay stopped until"));
}

}  // namespace
