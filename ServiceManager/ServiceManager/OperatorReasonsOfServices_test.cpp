// The reasons of many services at once.

#include "ServiceManager/ServiceManager/Operator_fixture.h"

namespace {

using namespace platform;
using testing::IsEmpty;

class ReasonsOfServicesTest : public OperatorFixture {
 protected:
  Value reasonOf(const char* label) { return ask("reasonsOfServices:", {Array{label}})[label]; }
};

TEST_F(ReasonsOfServicesTest, AreThoseOfThisProductsServices) {
  startAll();
  const Value reasons = ask("reasonsOfServices:", {Array{kAgent, kForeign, "unknown", 5}});
  ASSERT_TRUE(reasons.dictionary());
  EXPECT_EQ(reasons.dictionary()->size(), 1u);
  EXPECT_EQ(reasons[kAgent][kFactReason], Value("switch"));
  EXPECT_EQ(reasonOf(kPrimary)[kFactReason], Value("primary"));
  ask("reasonsOfServices:", {5});
  EXPECT_TRUE(client_->recentException());
}

TEST_F(ReasonsOfServicesTest, AskNoSettingsServer) {
  startAll();
  settings("common") = {{"on", 0}};  // changed behind the daemon's back
  const Value agent = reasonOf(kAgent);
  EXPECT_EQ(agent[kFactReason], Value("switch"));
  EXPECT_FALSE((*agent[kFactSwitches].array())[0][kFactCurrentAge].isNil());
  EXPECT_EQ(factsOf(kAgent)[kFactReason], Value("noMatch"));
}

TEST_F(ReasonsOfServicesTest, HaveTheThrottleOfTheCatalogue) {
  startAll();
  EXPECT_EQ(reasonOf(kAgent)[kFactThrottle], Value(0));
}

}  // namespace
