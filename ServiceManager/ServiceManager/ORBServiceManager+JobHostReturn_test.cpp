// Requests that failed because the job host did not answer are repeated when it answers again.

#include <chrono>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::IsEmpty;

class JobHostReturnTest : public ServiceManagerFixture {
 protected:
  JobHostReturnTest() { use(catalogue()); }

  void returnJobHost() {
    manager().handleJobHostReturn();
    loop_.runReady();
  }
  std::size_t evaluations() { return countInLog("Evaluating the system configuration"); }
};

TEST_F(JobHostReturnTest, AnAbsentHostDelaysNobody) {
  startConfigurationServer();
  jobs_.setReachable(false);
  const Instant before = loop_.now();
  for (int i = 0; i < 3; ++i) evaluate();
  EXPECT_EQ(loop_.now(), before);
  EXPECT_TRUE(manager().isEvaluating());
  loop_.advanceBy(10s);
  EXPECT_FALSE(manager().isEvaluating());
}

TEST_F(JobHostReturnTest, TheReturnRepeatsAFailedStart) {
  startConfigurationServer();
  jobs_.setReachable(false);
  evaluate();
  loop_.advanceBy(5s);
  jobs_.setReachable(true);
  loop_.advanceBy(1h);
  ASSERT_THAT(jobs_.labels(), IsEmpty());  // There is no health record that would retry.
  takeLog();
  returnJobHost();
  EXPECT_EQ(evaluations(), 1u);
  EXPECT_EQ(countInLog("The job host answers again"), 1u);
  for (const char* label : {kPrimary, kAgent, kHelper}) EXPECT_TRUE(isRunning(label)) << label;
}

TEST_F(JobHostReturnTest, TheReturnRepeatsAFailedShutdown) {
  startConfigurationServer();
  settings("common")["on"] = 1;
  Dictionary services = *catalogue()["Services"].dictionary();
  services.set(kAgent, entry("agent", {{"Features", Array{"web"}}}));
  Dictionary all = catalogue(services);
  all.set(
      "Features",
      Dictionary{
          {"web", Dictionary{{"Config", Array{Dictionary{{"Source", "common"},
                                                         {"Switches", Dictionary{{"on", 1}}}}}}}}});
  use(all);
  evaluate();
  ASSERT_TRUE(isRunning(kAgent));
  settings_["common"]["on"] = 0;
  evaluate();
  jobs_.setReachable(false);
  loop_.advanceBy(1min);
  ASSERT_TRUE(isRunning(kAgent));
  jobs_.setReachable(true);
  returnJobHost();
  loop_.advanceBy(3s);
  EXPECT_FALSE(isRunning(kAgent));
}

TEST_F(JobHostReturnTest, TheReturnLeavesStoppedServicesAlone) {
  manager().stopServices({kPrimary, kAgent});
  for (const auto mode : {kNormal, kWaiting}) {
    enterMode(mode);
    returnJobHost();
    EXPECT_FALSE(isRunning(kPrimary));
    EXPECT_FALSE(isRunning(kAgent));
  }
}

TEST_F(JobHostReturnTest, TheReturnRepeatsAFailedStop) {
  startConfigurationServer();
  evaluate();
  jobs_.setReachable(false);
  manager().stopServices({kAgent});
  loop_.advanceBy(10s);  // Until the removal has failed.
  jobs_.setReachable(true);
  ASSERT_TRUE(isRunning(kAgent));
  enterMode(ORBOperatingModeInstaller);
  returnJobHost();
  EXPECT_TRUE(isRunning(kAgent));
  enterMode(kNormal);
  returnJobHost();
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_TRUE(isRunning(kHelper));
}

TEST_F(JobHostReturnTest, TheReturnLeavesTheInstallersPrimaryServiceAlone) {
  startConfigurationServer();
  evaluate();
  shutDown({kPrimary, kAgent});
  manager().handleGlobalSettingsServerWillShutdown({});
  stopConfigurationServer();
  ASSERT_EQ(manager().operatingMode(), kWaiting);
  returnJobHost();
  EXPECT_FALSE(isRunning(kPrimary));
  manager().evaluateServices();
  loop_.advanceBy(100ms);
  EXPECT_TRUE(isRunning(kPrimary));
  // After that it is started again.
  EXPECT_TRUE(jobs_.SMJobRemove(kSMDomainSystemLaunchd, kPrimary, nullptr, true));
  returnJobHost();
  EXPECT_TRUE(isRunning(kPrimary));
}

// It reports no end.
TEST_F(JobHostReturnTest, AnInstallerThatDiedIsForgottenInNormalMode) {
  startConfigurationServer();
  evaluate();
  shutDown({kPrimary, kAgent});
  manager().handleGlobalSettingsServerWillShutdown({});
  EXPECT_TRUE(manager().operatorPicture().isInstallerAtWork);
  manager().handleGlobalSettingsServerDidStart({});
  loop_.runReady();
  ASSERT_EQ(manager().operatingMode(), kNormal);
  EXPECT_FALSE(manager().operatorPicture().isInstallerAtWork);
  manager().handleGlobalSettingsServerWillShutdown({});
  stopConfigurationServer();
  EXPECT_TRUE(jobs_.SMJobRemove(kSMDomainSystemLaunchd, kPrimary, nullptr, true));
  returnJobHost();
  EXPECT_TRUE(isRunning(kPrimary));
}

TEST_F(JobHostReturnTest, AnEndedPrimaryServiceIsStartedFirst) {
  startConfigurationServer();
  evaluate();
  stopConfigurationServer();
  takeLog();
  returnJobHost();
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  EXPECT_EQ(evaluations(), 0u);
  startConfigurationServer();
  manager().handleGlobalSettingsServerDidStart({});
  loop_.runReady();
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(JobHostReturnTest, TheReturnRepeatsAFailedWatch) {
  startConfigurationServer();
  evaluate();
  const auto client = registerClient();
  jobs_.endProcess(kAgent);
  jobs_.setReachable(false);
  loop_.runReady();
  ASSERT_FALSE(manager().isServiceBeingTrackedForRespawn(kAgent));
  jobs_.setReachable(true);
  client->notices.clear();
  returnJobHost();
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_THAT(client->notices, testing::Contains(notice(kAgent, 1, process(kAgent))));
}

TEST_F(JobHostReturnTest, TheReturnCoversAPendingChange) {
  startConfigurationServer();
  manager().handleGlobalSettingsDidChange({"KLXGlobalSettingsDidChangeNotification", std::nullopt,
                                           Dictionary{{"KLXGlobalSettingsKeyModified", "on"}}});
  loop_.advanceBy(1s);
  returnJobHost();
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
  loop_.advanceBy(10s);
  EXPECT_EQ(evaluations(), 1u);
}

}  // namespace
