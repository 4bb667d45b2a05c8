// The reason in a service's facts is what the daemon does with the service.

#include <chrono>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/StartUp_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

class OperatorReasonTest : public StartUpFixture {
 protected:
  // A core service, a feature service with a switch that asks for it, and a health record.
  void startAll() {
    keepsHealthRecord_ = true;
    installProduct("3D8F1A20-6B4C-4E7A-9C11-5A2E7B90C4D1");
    Dictionary services;
    const auto add = [&](const char* label, Dictionary service) {
      service.set("Products", Array{"kKLXInstallTypeHouseholdID"});
      services.set(label, std::move(service));
    };
    add(kPrimary, entry("configd"));
    add(kHelper, entry("helper"));
    add(kAgent, entry("agent", {{"Features", Array{"web"}}}));
    Dictionary all = catalogue(services);
    const Dictionary config{{"Source", "common"}, {"Switches", Dictionary{{"on", 1}}}};
    all.set("Features", Dictionary{{"web", Dictionary{{"Config", Array{config}}}}});
    install(all);
    settings("common") = {{"on", isOn_}};
    startConfigurationServer();
    start();
    loop_.advanceBy(1s);
  }

  std::string reasonOf(const char* label) {
    const Value facts = serviceFacts(label);
    const std::string* reason = facts[kFactReason].string();
    return reason ? *reason : "";
  }
  bool isRetried(const char* label) { return serviceFacts(label)[kFactIsRetried] == Value(true); }

  int isOn_ = 1;
};

TEST_F(OperatorReasonTest, EachRunningServiceHasItsOwnReason) {
  startAll();
  EXPECT_EQ(reasonOf(kPrimary), "primary");
  EXPECT_EQ(reasonOf(kHelper), "core");
  EXPECT_EQ(reasonOf(kAgent), "switch");
  EXPECT_FALSE(isRetried(kHelper));
}

TEST_F(OperatorReasonTest, AStoppedServiceIsNotStartedByAnEvaluation) {
  startAll();
  manager().stopServices({kHelper});
  loop_.runReady();
  EXPECT_EQ(reasonOf(kHelper), "stopped");
  evaluate();
  EXPECT_FALSE(isRunning(kHelper));
  manager().startServices({kHelper});
  loop_.runReady();
  EXPECT_EQ(reasonOf(kHelper), "core");
}

TEST_F(OperatorReasonTest, AnInstallerKeepsServicesDown) {
  startAll();
  shutDown({kHelper, kAgent});
  EXPECT_EQ(reasonOf(kHelper), "installer");
  EXPECT_EQ(reasonOf(kAgent), "installer");
  EXPECT_EQ(reasonOf(kPrimary), "primary");
  manager().evaluateInformationForService(kHelper);
  loop_.runReady();
  EXPECT_FALSE(isRunning(kHelper));
}

TEST_F(OperatorReasonTest, WithoutTheConfigurationServerServicesWait) {
  startAll();
  manager().stopServices({kHelper});
  loop_.runReady();
  manager().handleGlobalSettingsServerWillShutdown({});
  manager().trackServiceForUserClientShutdownRequest(kHelper, false);
  EXPECT_EQ(reasonOf(kHelper), "waiting");
  manager().evaluateInformationForService(kHelper);
  loop_.runReady();
  EXPECT_FALSE(isRunning(kHelper));
}

TEST_F(OperatorReasonTest, APrimaryServiceOfAnotherProductIsTheReason) {
  Dictionary foreign = entry("configd");
  foreign.set("Products", Array{"kKLXInstallTypePersonalID"});
  install(catalogue({{kPrimary, foreign}, {kHelper, entry("helper")}}));
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  EXPECT_EQ(countInLog("does not belong to the current product"), 1u);
  EXPECT_EQ(reasonOf(kHelper), "primaryOtherProduct");
  EXPECT_EQ(reasonOf(kPrimary), "otherProduct");
  EXPECT_FALSE(isRunning(kHelper));
}

TEST_F(OperatorReasonTest, AServiceWithMalformedFeaturesIsNotRetried) {
  startAll();
  Dictionary services = *manager().serviceInfo()["Services"].dictionary();
  Dictionary agent = *services[kAgent].dictionary();
  agent.set("Features", "none");
  services.set(kAgent, std::move(agent));
  install(catalogue(services));
  manager_.reset();
  start();
  loop_.advanceBy(1s);
  EXPECT_EQ(serviceFacts(kAgent)[kFactHealth]["Status"], Value(kUnready));
  EXPECT_FALSE(isRetried(kAgent));
  EXPECT_EQ(reasonOf(kAgent), "malformedFeatures");
}

TEST_F(OperatorReasonTest, WithoutThePrimaryServiceNoOtherIsStarted) {
  startAll();
  stop(kHelper);
  manager().stopServices({kPrimary});
  loop_.runReady();
  EXPECT_EQ(reasonOf(kPrimary), "stopped");
  EXPECT_EQ(reasonOf(kHelper), "primaryStopped");
  evaluate();
  EXPECT_FALSE(isRunning(kHelper));
}

TEST_F(OperatorReasonTest, AFeatureServiceRunsUntilItsShutdownIsDue) {
  startAll();
  settings_["common"]["on"] = 0;
  EXPECT_EQ(reasonOf(kAgent), "noMatch");
  evaluate();
  EXPECT_TRUE(isRunning(kAgent));
  loop_.advanceBy(3s);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_EQ(reasonOf(kAgent), "noMatch");
}

TEST_F(OperatorReasonTest, AFeatureServiceThatIsOffIsNotRetried) {
  isOn_ = 0;
  startAll();
  EXPECT_EQ(reasonOf(kAgent), "noMatch");
  EXPECT_FALSE(isRetried(kAgent));
  EXPECT_EQ(serviceFacts(kAgent)[kFactStopIn], Value(2.1));
  loop_.advanceBy(30s);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_EQ(reasonOf(kAgent), "noMatch");
}

TEST_F(OperatorReasonTest, AServiceWhoseProgramCannotBeCheckedHasAReason) {
  startConfigurationServer();
  start();
  signatures_.setShortage(true);
  loop_.advanceBy(1s);
  EXPECT_FALSE(isRunning(kPrimary));
  EXPECT_EQ(reasonOf(kPrimary), "unchecked");
}

TEST_F(OperatorReasonTest, AServiceIsRetriedWhileAnInstallerIsAtWork) {
  startAll();
  files_.remove(pathOf("agent"));
  evaluate();
  ASSERT_FALSE(isRunning(kAgent));
  EXPECT_EQ(reasonOf(kAgent), "noProgram");
  EXPECT_TRUE(isRetried(kAgent));
  shutDown({kHelper});
  settings_["common"]["on"] = 0;
  EXPECT_EQ(reasonOf(kHelper), "installer");
  EXPECT_EQ(reasonOf(kAgent), "noProgram");
  damageProgram("agent");
  files_.addFile(pathOf("agent"));
  loop_.advanceBy(20s);
  EXPECT_EQ(reasonOf(kAgent), "damaged");
  addProgram("agent");
  loop_.advanceBy(20s);
  EXPECT_EQ(reasonOf(kAgent), "noMatch");  // The retry starts it all the same.
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_FALSE(isRunning(kHelper));
}

}  // namespace
