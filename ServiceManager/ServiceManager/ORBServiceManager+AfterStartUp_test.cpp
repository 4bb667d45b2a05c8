// The daemon after its start: the first evaluation, the events that cause further ones, and the
// end.

#include <chrono>
#include <vector>

#include "ServiceManager/ServiceManager/StartUp_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class AfterStartUpTest : public StartUpFixture {};

// The first evaluation, and the events that cause further ones.

TEST_F(AfterStartUpTest, WithTheServerUpEverythingIsEvaluatedSoon) {
  startConfigurationServer();
  start();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  loop_.advanceBy(100ms - 1ns);
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  loop_.advanceBy(1ns);
  EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent, kPrimary, kHelper));
  EXPECT_EQ(countInLog("Evaluating primary service"), 0u);
}

TEST_F(AfterStartUpTest, WithTheServerDownThePrimaryServiceIsStarted) {
  start();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  EXPECT_THAT(takeLog(), testing::Contains("7 Evaluating primary service"));
  EXPECT_THAT(jobs_.labels(), ElementsAre(kPrimary));
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kPrimary));
  loop_.advanceBy(1min);
  EXPECT_THAT(jobs_.labels(), ElementsAre(kPrimary));
}

TEST_F(AfterStartUpTest, TheConfigurationServersStartIsNoticedAtOnce) {
  start();
  startConfigurationServer();
  post("com.vantor.notification.configd.didstart");
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent, kPrimary, kHelper));
}

TEST_F(AfterStartUpTest, TheWatchdogNoticesTheServerAfterFifteenMinutes) {
  start();
  startConfigurationServer();
  loop_.advanceBy(900s - 1ns);
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  loop_.advanceBy(1ns);
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  EXPECT_TRUE(isRunning(kAgent));
  stopConfigurationServer();
  loop_.advanceBy(900s);
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
}

TEST_F(AfterStartUpTest, ARestartedPrimaryServiceCausesAnEvaluation) {
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  post("com.vantor.notification.configd.willshutdown");
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  stopConfigurationServer();
  takeLog();
  startConfigurationServer();
  post("com.vantor.notification.configd.didstart");
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 1u);
}

// Notices that are lost because the bus has ended.

TEST_F(AfterStartUpTest, TheReturnOfTheBusFindsARestartedPrimaryService) {
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  post("com.vantor.notification.configd.willshutdown");
  stopConfigurationServer();
  bus_.stop();
  startConfigurationServer();  // Its announcement ends with the bus.
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  takeLog();
  bus_.start();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 1u);
}

TEST_F(AfterStartUpTest, APrimaryServiceIsNoticedAfterTheReturn) {
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  bus_.stop();
  stopConfigurationServer();
  bus_.start();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  startConfigurationServer();
  post("com.vantor.notification.configd.didstart");
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
}

TEST_F(AfterStartUpTest, TheReturnOfTheBusEvaluatesAChangedSetting) {
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  bus_.stop();
  post("KLXGlobalSettingsDidChangeNotification",
       Dictionary{{"KLXGlobalSettingsKeyModified", "mode"}});
  takeLog();
  bus_.start();
  loop_.runReady();
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 1u);
  EXPECT_EQ(countInLog("Evaluating service: com.example.agent"), 1u);
}

TEST_F(AfterStartUpTest, TheReturnOfTheBusDisturbsNoInstaller) {
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  shutDown({kAgent});
  loop_.runReady();
  takeLog();
  bus_.stop();
  bus_.start();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeInstaller);
  EXPECT_EQ(countInLog("Evaluating"), 0u);
  EXPECT_FALSE(isRunning(kAgent));
}

TEST_F(AfterStartUpTest, TheJobHostsReturnIsObservedUntilTheEnd) {
  startConfigurationServer();
  EXPECT_FALSE(jobHostReturned_);
  start();
  loop_.advanceBy(1s);
  takeLog();
  ASSERT_TRUE(jobHostReturned_);
  jobHostReturned_();
  loop_.runReady();
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 1u);
  manager_.reset();
  EXPECT_FALSE(jobHostReturned_);
}

TEST_F(AfterStartUpTest, ASettingsChangeIsObserved) {
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  takeLog();
  post("KLXGlobalSettingsDidChangeNotification",
       Dictionary{{"KLXGlobalSettingsKeyModified", "mode"}});
  EXPECT_EQ(countInLog("Notification received for global settings change: mode"), 1u);
  loop_.advanceBy(2s);
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 1u);
}

TEST_F(AfterStartUpTest, ARestartedDaemonTakesOverRunningServices) {
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  const std::vector<int> before{process(kPrimary), process(kAgent), process(kHelper)};
  manager_.reset();
  EXPECT_EQ(exitWatcher_.watchCount(), 0u);
  start();
  loop_.advanceBy(1s);
  EXPECT_EQ((std::vector<int>{process(kPrimary), process(kAgent), process(kHelper)}), before);
  EXPECT_EQ(jobs_.starts(kAgent), 1u);
  EXPECT_EQ(exitWatcher_.watchCount(), 3u);
}

TEST_F(AfterStartUpTest, TheEndStopsNoService) {
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  manager().backgroundServiceWillTerminate({});
  EXPECT_TRUE(manager().monitoredProcessesInfo().empty());
  EXPECT_TRUE(manager().serviceToFeatureNotificationMap().empty());
  manager_.reset();
  EXPECT_TRUE(isRunning(kPrimary) && isRunning(kAgent) && isRunning(kHelper));
}

TEST_F(AfterStartUpTest, TheEndRemovesNoObserverAndEndsNoTimer) {
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  manager().backgroundServiceWillTerminate({});
  EXPECT_TRUE(manager().watchDog());
  post("KLXGlobalSettingsDidChangeNotification");
  EXPECT_TRUE(manager().globalSettingsDidChangeEffectTimer());
  loop_.advanceBy(2s);
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());  // It was evaluated.
}

}  // namespace
