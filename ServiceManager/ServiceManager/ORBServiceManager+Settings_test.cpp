#include <chrono>
#include <functional>
#include <thread>
#include <vector>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class SettingsTest : public ServiceManagerFixture {
 protected:
  SettingsTest() {
    use(catalogue());
    useConfigurationServer();
  }

  std::size_t evaluations() { return countInLog("Evaluating the system configuration"); }
  void didStart() { manager().handleGlobalSettingsServerDidStart({}); }
  void willShutdown() { manager().handleGlobalSettingsServerWillShutdown({}); }
  void didChange(Value userInfo = Dictionary{{"KLXGlobalSettingsKeyModified", "key"}}) {
    manager().handleGlobalSettingsDidChange(
        {"KLXGlobalSettingsDidChangeNotification", std::nullopt, std::move(userInfo)});
  }
};

// The primary service's notices, in each mode.

class StartNoticeTest : public SettingsTest, public testing::WithParamInterface<std::int64_t> {};

TEST_P(StartNoticeTest, FromAServerThatIsUpEvaluatesAtOnceUnlessAnInstallerIsAtWork) {
  startConfigurationServer();
  manager().setOperatingMode(GetParam());
  didStart();
  const bool isInstalling = GetParam() == kInstaller;
  EXPECT_EQ(manager().operatingMode(), isInstalling ? kInstaller : kNormal);
  EXPECT_EQ(evaluations(), isInstalling ? 0u : 1u);
  EXPECT_EQ(countInLog("Primary service did start and ready to handle requests"), 1u);
}

TEST_P(StartNoticeTest, FromAServerThatIsDownChangesNothing) {
  manager().setOperatingMode(GetParam());
  didStart();
  EXPECT_EQ(manager().operatingMode(), GetParam());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_P(StartNoticeTest, AShutdownNoticeMakesTheDaemonWaitWhateverTheMode) {
  manager().setOperatingMode(GetParam());
  willShutdown();
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  EXPECT_THAT(takeLog(), ElementsAre("7 Primary service is shutting down"));
}

TEST_P(StartNoticeTest, TheInstallersBeginStopsItsServicesAndEvaluatesNothing) {
  manager().evaluateSystemConfiguration();
  takeLog();
  manager().setOperatingMode(GetParam());
  EXPECT_TRUE(manager().shutdownServices({kAgent}));
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), kInstaller);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_TRUE(isRunning(kHelper));
}

TEST_P(StartNoticeTest, TheInstallersEndEvaluatesWhereTheServerIsUp) {
  startConfigurationServer();
  manager().setOperatingMode(GetParam());
  EXPECT_TRUE(manager().evaluateServices());
  EXPECT_EQ(manager().operatingMode(), GetParam());  // It has its answer first.
  loop_.advanceBy(100ms);
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_EQ(evaluations(), 0u);
  loop_.advanceBy(100ms - 1ns);
  EXPECT_EQ(evaluations(), 0u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_P(StartNoticeTest, TheInstallersEndStartsThePrimaryServiceWhereTheServerIsDown) {
  manager().setOperatingMode(GetParam());
  EXPECT_TRUE(manager().evaluateServices());
  loop_.advanceBy(100ms);
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  EXPECT_THAT(jobs_.labels(), ElementsAre(kPrimary));
  loop_.advanceBy(1s);
  EXPECT_EQ(evaluations(), 0u);
}

INSTANTIATE_TEST_SUITE_P(InMode, StartNoticeTest, testing::Values(kNormal, kInstaller, kWaiting),
                         [](const auto& mode) { return std::to_string(mode.param); });

TEST_F(SettingsTest, AShutdownNoticeEndsTheInstallersModeAndTheNextStartEvaluates) {
  startConfigurationServer();
  manager().shutdownServices({kAgent});
  willShutdown();
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  didStart();
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_TRUE(isRunning(kAgent));  // The installer has not reported its end.
}

TEST_F(SettingsTest, ThePrimaryServiceThatComesBackIsNoticedAtOnce) {
  startConfigurationServer();
  didStart();
  stopConfigurationServer();
  willShutdown();
  takeLog();
  startConfigurationServer();
  loop_.runReady();  // The old connection's death comes first.
  didStart();
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, WhenTheBusReturnsSettingsServersAreLookedUpAnew) {
  settings("common");
  const auto* client =
      static_cast<FakeSettingsClient*>(manager().configurationWithSelectorPrefix("common"));
  EXPECT_EQ(manager().configurationWithSelectorPrefix("unknown"), nullptr);
  startConfigurationServer();
  manager().handleNotificationsReturn();
  EXPECT_EQ(client->lookedUpAnew, 1);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, AServerThatStoodStillWhenTheBusReturnedIsAskedOnceMore) {
  startConfigurationServer();
  didStart();
  ASSERT_EQ(manager().operatingMode(), kNormal);
  configurationProgram_->transport.hang();
  manager().handleNotificationsReturn();
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  configurationProgram_->transport.goOn();
  takeLog();
  loop_.advanceBy(31s - 1ns);
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  loop_.advanceBy(1ns);
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, AServerThatStoodStillWhileItWasAwaitedIsAskedOnceMore) {
  startConfigurationServer();
  manager().setOperatingMode(kWaiting);
  configurationProgram_->transport.hang();
  manager().handleNotificationsReturn();
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  configurationProgram_->transport.goOn();
  loop_.advanceBy(31s);
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, TheReturnOfTheBusClearsASpentTimer) {
  startConfigurationServer();
  manager().setOperatingMode(kWaiting);
  didChange();
  loop_.advanceBy(2s);
  ASSERT_TRUE(manager().globalSettingsDidChangeEffectTimer());
  manager().handleNotificationsReturn();
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
  takeLog();
  didChange();
  loop_.advanceBy(2s);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, TheReturnOfTheBusCoversAPendingChange) {
  startConfigurationServer();
  didChange();
  loop_.advanceBy(1s);
  manager().handleNotificationsReturn();
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
  loop_.advanceBy(10s);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, TheInstallersEndIsReported) {
  useHealth();
  manager().evaluateServices();
  EXPECT_THAT(takeReports(), ElementsAre("installer event finished"));
}

// Changes of the settings.

TEST_F(SettingsTest, AChangeIsEvaluatedAfterTwoSeconds) {
  didChange();
  EXPECT_THAT(takeLog(),
              ElementsAre("7 Notification received for global settings change: key",
                          "7 Will evaluate the system configuration in 2.000000 seconds"));
  loop_.advanceBy(2s - 1ns);
  EXPECT_EQ(evaluations(), 0u);
  EXPECT_TRUE(manager().globalSettingsDidChangeEffectTimer());
  loop_.advanceBy(1ns);
  EXPECT_EQ(evaluations(), 1u);
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
}

TEST_F(SettingsTest, TenChangesWithinTwoSecondsAreTenLinesAndOneEvaluation) {
  for (int change = 0; change < 10; ++change) {
    didChange();
    loop_.advanceBy(100ms);
  }
  loop_.advanceBy(10s);
  EXPECT_EQ(countInLog("Notification received for global settings change: key"), 10u);
  EXPECT_EQ(countInLog("Will evaluate the system configuration in 2.000000 seconds"), 1u);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, AChangeAfterTheEvaluationIsEvaluatedAgain) {
  didChange();
  loop_.advanceBy(2s);
  didChange();
  loop_.advanceBy(2s);
  EXPECT_EQ(evaluations(), 2u);
}

TEST_F(SettingsTest, AnEvaluationForAnotherReasonCoversTheChange) {
  didChange();
  manager().evaluateSystemConfiguration();
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
  loop_.advanceBy(10s);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, AChangeOutsideNormalModeSpendsTheTimerUntilAnEvaluationInNormalMode) {
  startConfigurationServer();
  for (const auto mode : {kWaiting, kInstaller}) {
    manager().setOperatingMode(mode);
    didChange();
    loop_.advanceBy(2s);
    takeLog();
    EXPECT_TRUE(manager().globalSettingsDidChangeEffectTimer());
    didChange();
    loop_.advanceBy(10s);
    EXPECT_THAT(takeLog(), ElementsAre("7 Notification received for global settings change: key"));

    manager().setOperatingMode(kWaiting);
    didStart();
    EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
    takeLog();
    didChange();
    loop_.advanceBy(2s);
    EXPECT_EQ(evaluations(), 1u);
    takeLog();
  }
}

TEST_F(SettingsTest, AChangeThatNamesNoKeyCountsLikeAnyOther) {
  didChange(Value());
  EXPECT_EQ(countInLog("Notification received for global settings change: (null)"), 1u);
  didChange(Dictionary{{"another", 1}});
  EXPECT_EQ(countInLog("Notification received for global settings change: (null)"), 2u);
  loop_.advanceBy(2s);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, ASettingsServerThatRestartedIsEvaluatedAtOnce) {
  const std::map<std::string, Value> none;
  FakeSettingsClient client(none);
  manager().globalSettingsServerDidRestart(client);
  EXPECT_EQ(evaluations(), 1u);
}

// What is not ready.

TEST_F(SettingsTest, WithoutAHealthRecordNothingIsReevaluated) {
  manager().evaluateSystemConfiguration();
  EXPECT_FALSE(manager().reevaluationTimer());
}

TEST_F(SettingsTest, WhereEverythingIsReadyNothingIsReevaluated) {
  useHealth();
  manager().evaluateSystemConfiguration();
  EXPECT_FALSE(manager().reevaluationTimer());
}

TEST_F(SettingsTest, WhatIsNotReadyIsStartedAgainEveryTwentySecondsUntilItIs) {
  useHealth();
  files_.remove(pathOf("agent"));
  files_.remove(pathOf("helper"));
  manager().evaluateSystemConfiguration();
  const RunLoopHandle* const timer = manager().reevaluationTimer();
  EXPECT_TRUE(timer);
  manager().scheduleReevaluation();
  EXPECT_EQ(manager().reevaluationTimer(), timer);  // One at most.
  takeLog();

  const std::string both =
      "Reevaluating configuration for service(s): [com.example.agent, com.example.helper]";
  loop_.advanceBy(20s - 1ns);
  EXPECT_EQ(countInLog("Reevaluating"), 0u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(countInLog(both), 1u);
  loop_.advanceBy(20s);
  EXPECT_EQ(countInLog(both), 2u);

  addProgram("agent");
  loop_.advanceBy(20s);
  EXPECT_EQ(countInLog(both), 3u);
  EXPECT_TRUE(isRunning(kAgent));
  addProgram("helper");
  loop_.advanceBy(20s);
  EXPECT_EQ(countInLog("Reevaluating configuration for service(s): [com.example.helper]"), 1u);
  EXPECT_TRUE(isRunning(kHelper));
  EXPECT_FALSE(manager().reevaluationTimer());
  loop_.advanceBy(60s);
  EXPECT_EQ(countInLog("Reevaluating"), 4u);
}

TEST_F(SettingsTest, WhatIsNotReadyIsStartedAgainInAnyMode) {
  useHealth();
  for (const auto mode : {kNormal, kInstaller, kWaiting}) {
    manager().setOperatingMode(kNormal);
    files_.remove(pathOf("agent"));
    EXPECT_TRUE(jobs_.SMJobRemove(kSMDomainSystemLaunchd, kAgent, nullptr, true) ||
                mode == kNormal);
    manager().evaluateSystemConfiguration();
    EXPECT_FALSE(isRunning(kAgent));
    addProgram("agent");
    manager().setOperatingMode(mode);
    loop_.advanceBy(20s);
    EXPECT_TRUE(isRunning(kAgent)) << mode;
  }
}

// The release that a service needs.

class OSSupportTest : public SettingsTest {
 protected:
  bool isSupported(Value minimum, const char* release) {
    system_.setRelease(release, {10, 11, 0});
    use(catalogue({{kAgent, entry("agent", {{"MinimumOSVersion", std::move(minimum)}})}}));
    return manager().checkOSSupportForService(kAgent);
  }
};

TEST_F(OSSupportTest, AServiceRunsFromItsReleaseOn) {
  struct Row {
    const char* version;
    int kernel;
  };
  for (const Row& row : {Row{"10.8", 12}, Row{"10.9", 13}, Row{"10.10", 14}, Row{"10.11", 15}}) {
    const auto release = [&](int kernel) { return std::to_string(kernel) + ".0.0"; };
    EXPECT_FALSE(isSupported(row.version, release(row.kernel - 1).c_str())) << row.version;
    EXPECT_TRUE(isSupported(row.version, release(row.kernel).c_str())) << row.version;
    EXPECT_TRUE(isSupported(row.version, release(row.kernel + 1).c_str())) << row.version;
  }
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(OSSupportTest, AServiceWithoutAReleaseRunsOnAny) {
  EXPECT_TRUE(manager().checkOSSupportForService(kAgent));
  EXPECT_TRUE(manager().checkOSSupportForService("com.example.unknown"));
}

TEST_F(OSSupportTest, AReleaseOfAnotherTypeIsUnknown) {
  for (const Value& version : {Value(10.5), Value(15), Value(true), Value(Array{"10.8"})}) {
    EXPECT_FALSE(isSupported(version, "15.0.0"));
    EXPECT_THAT(takeLog(), ElementsAre(stringWithFormat(
                               "3 Unknown OS version: '%@'.  Not starting service", version)));
  }
}

TEST_F(OSSupportTest, AnUnknownReleaseRunsOnNoneAndIsLogged) {
  EXPECT_FALSE(isSupported("10.12", "99.0.0"));
  EXPECT_THAT(takeLog(), ElementsAre("3 Unknown OS version: '10.12'.  Not starting service"));
}

// What the executable-information service asks.

TEST_F(SettingsTest, TheLastLoggedInUsersFolderIsTheSettingsWithAClientOfItsOwn) {
  settings("cmx")["ORBCmxLastLoggedInUser"] = "/home/user";
  manager().configurationWithSelectorPrefix("cmx");
  EXPECT_EQ(manager().getLastLoggedInUserHomeDirectory(), Value("/home/user"));
  EXPECT_EQ(clientsMade_, 2);
}

TEST_F(SettingsTest, TheLastLoggedInUsersFolderIsAskedForWithTheSettingsOfTheAskingThread) {
  settings("cmx")["ORBCmxLastLoggedInUser"] = "/home/user";
  ServiceManagerPlatform environment = platform(jobs_);
  std::vector<std::thread::id> askedOn;
  environment.withSettingsOfThisThread =
      [&](const std::function<void(const SettingsClientFactories&)>& ask) {
        EXPECT_EQ(clientsMade_, 0);
        ask(factories_);
        askedOn.push_back(std::this_thread::get_id());
      };
  ORBServiceManager manager(environment);
  std::thread::id asking;
  std::thread([&] {
    asking = std::this_thread::get_id();
    EXPECT_EQ(manager.getLastLoggedInUserHomeDirectory(), Value("/home/user"));
    EXPECT_THAT(askedOn, ElementsAre(asking));
  }).join();
  EXPECT_EQ(clientsMade_, 1);
}

TEST_F(SettingsTest, WithoutAClientOrTheSettingThereIsNoLastUser) {
  EXPECT_TRUE(manager().getLastLoggedInUserHomeDirectory().isNil());
  settings("cmx");
  EXPECT_TRUE(manager().getLastLoggedInUserHomeDirectory().isNil());
  EXPECT_THAT(takeLog(), IsEmpty());
}

}  // namespace
