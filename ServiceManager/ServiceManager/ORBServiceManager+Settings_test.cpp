#include <chrono>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class SettingsTest : public ServiceManagerFixture {
 protected:
  SettingsTest() { use(catalogue()); }

  std::size_t evaluations() { return countInLog("Evaluating the system configuration"); }
  void didStart() {
    manager().handleGlobalSettingsServerDidStart({});
    loop_.runReady();
  }
  // The agent's feature has a switch among the "common" settings.
  void useFeature() {
    settings("common")["on"] = 1;
    Dictionary all = catalogue(
        {{kPrimary, entry("configd")}, {kAgent, entry("agent", {{"Features", Array{"web"}}})}});
    const Dictionary config{{"Source", "common"}, {"Switches", Dictionary{{"on", 1}}}};
    all.set("Features", Dictionary{{"web", Dictionary{{"Config", Array{config}}}}});
    use(all);
  }
  void willShutdown() { manager().handleGlobalSettingsServerWillShutdown({}); }
  void didChange(Value userInfo = Dictionary{{"KLXGlobalSettingsKeyModified", "key"}}) {
    manager().handleGlobalSettingsDidChange(
        {"KLXGlobalSettingsDidChangeNotification", std::nullopt, std::move(userInfo)});
  }
};

// A server that announces its start again and again costs one question at a time.
TEST_F(SettingsTest, AnnouncementsDuringAQuestionAreOneMoreQuestion) {
  startConfigurationServer();
  for (int i = 0; i < 10; ++i) manager().handleGlobalSettingsServerDidStart({});
  loop_.runReady();
  EXPECT_EQ(countInLog("Primary service did start and ready to handle requests"), 1u);
  EXPECT_EQ(evaluations(), 1u);
  EXPECT_EQ(configurationServer_.questions, 3);  // Two about the start, one of the evaluation.
}

// The primary service's notices, in each mode.

class StartNoticeTest : public SettingsTest, public testing::WithParamInterface<std::int64_t> {};

TEST_P(StartNoticeTest, EvaluatesAtOnceUnlessAnInstallerIsAtWork) {
  startConfigurationServer();
  enterMode(GetParam());
  didStart();
  const bool isInstalling = GetParam() == kInstaller;
  EXPECT_EQ(manager().operatingMode(), isInstalling ? kInstaller : kNormal);
  EXPECT_EQ(evaluations(), isInstalling ? 0u : 1u);
  EXPECT_EQ(countInLog("Primary service did start and ready to handle requests"), 1u);
}

TEST_P(StartNoticeTest, IsIgnoredIfTheServerIsDown) {
  enterMode(GetParam());
  didStart();
  EXPECT_EQ(manager().operatingMode(), GetParam());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_P(StartNoticeTest, AShutdownNoticeBeginsWaitingInAnyMode) {
  enterMode(GetParam());
  willShutdown();
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  EXPECT_THAT(takeLog(), ElementsAre("7 Primary service is shutting down"));
}

TEST_P(StartNoticeTest, TheInstallersBeginStopsItsServicesAndEvaluatesNothing) {
  evaluate();
  takeLog();
  enterMode(GetParam());
  EXPECT_TRUE(shutDown({kAgent}));
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), kInstaller);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_TRUE(isRunning(kHelper));
}

TEST_P(StartNoticeTest, TheInstallersEndEvaluatesIfTheServerIsUp) {
  startConfigurationServer();
  enterMode(GetParam());
  EXPECT_TRUE(manager().evaluateServices());
  EXPECT_EQ(manager().operatingMode(), GetParam());  // The installer gets its answer first.
  loop_.advanceBy(100ms);
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_EQ(evaluations(), 0u);
  loop_.advanceBy(100ms - 1ns);
  EXPECT_EQ(evaluations(), 0u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_P(StartNoticeTest, TheInstallersEndStartsAPrimaryServiceThatIsDown) {
  enterMode(GetParam());
  EXPECT_TRUE(manager().evaluateServices());
  loop_.advanceBy(100ms);
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  EXPECT_THAT(jobs_.labels(), ElementsAre(kPrimary));
  loop_.advanceBy(1s);
  EXPECT_EQ(evaluations(), 0u);
}

INSTANTIATE_TEST_SUITE_P(InMode, StartNoticeTest, testing::Values(kNormal, kInstaller, kWaiting),
                         [](const auto& mode) { return std::to_string(mode.param); });

TEST_F(SettingsTest, AShutdownNoticeEndsTheInstallersMode) {
  startConfigurationServer();
  shutDown({kAgent});
  willShutdown();
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  didStart();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_TRUE(isRunning(kAgent));  // The installer has not reported its end.
}

TEST_F(SettingsTest, ARestartedPrimaryServiceIsNoticedAtOnce) {
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

TEST_F(SettingsTest, TheReturnOfTheBusLooksUpServersAgain) {
  useFeature();
  startConfigurationServer();
  evaluate();
  const int before = forgetCalls_;
  takeLog();
  manager().handleNotificationsReturn();
  loop_.runReady();
  EXPECT_EQ(forgetCalls_, before + 1);
  EXPECT_EQ(evaluations(), 1u);
}

// A timer that has fired in another mode is kept, and prevents further ones.
TEST_F(SettingsTest, EachChangeLooksUpServersAgain) {
  useFeature();
  startConfigurationServer();
  evaluate();
  enterMode(kWaiting);
  didChange();
  loop_.advanceBy(2s);
  ASSERT_TRUE(manager().globalSettingsDidChangeEffectTimer());
  const int before = forgetCalls_;
  didChange();
  loop_.runReady();
  EXPECT_EQ(forgetCalls_, before + 1);
  for (int i = 0; i < 10; ++i) didChange();
  loop_.runReady();
  EXPECT_EQ(forgetCalls_, before + 2);
}

TEST_F(SettingsTest, AServerThatHungDuringTheReturnIsRetried) {
  startConfigurationServer();
  didStart();
  ASSERT_EQ(manager().operatingMode(), kNormal);
  configurationProgram_->transport.hang();
  manager().handleNotificationsReturn();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  configurationProgram_->transport.goOn();
  takeLog();
  loop_.advanceBy(31s - 1ns);
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  loop_.advanceBy(1ns);
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, AHungServerIsRetriedInWaitingMode) {
  startConfigurationServer();
  enterMode(kWaiting);
  configurationProgram_->transport.hang();
  manager().handleNotificationsReturn();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), kWaiting);
  configurationProgram_->transport.goOn();
  loop_.advanceBy(31s);
  EXPECT_EQ(manager().operatingMode(), kNormal);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, TheReturnOfTheBusClearsAFiredTimer) {
  startConfigurationServer();
  enterMode(kWaiting);
  didChange();
  loop_.advanceBy(2s);
  ASSERT_TRUE(manager().globalSettingsDidChangeEffectTimer());
  manager().handleNotificationsReturn();
  loop_.runReady();
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
  loop_.runReady();
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

TEST_F(SettingsTest, TenChangesInTwoSecondsAreOneEvaluation) {
  for (int change = 0; change < 10; ++change) {
    didChange();
    loop_.advanceBy(100ms);
  }
  loop_.advanceBy(10s);
  EXPECT_EQ(countInLog("Notification received for global settings change: key"), 10u);
  EXPECT_EQ(countInLog("Will evaluate the system configuration in 2.000000 seconds"), 1u);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, AFurtherChangeDoesNotPutOffThePendingEvaluation) {
  didChange();
  loop_.advanceBy(1s);
  didChange();
  loop_.advanceBy(1s - 1ns);
  EXPECT_EQ(evaluations(), 0u);
  loop_.advanceBy(1ns);
  EXPECT_EQ(evaluations(), 1u);
  loop_.advanceBy(10s);
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
  evaluate();
  EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
  loop_.advanceBy(10s);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, AChangeOutsideNormalModeBlocksFurtherChanges) {
  startConfigurationServer();
  for (const auto mode : {kWaiting, kInstaller}) {
    enterMode(mode);
    didChange();
    loop_.advanceBy(2s);
    takeLog();
    EXPECT_TRUE(manager().globalSettingsDidChangeEffectTimer());
    didChange();
    loop_.advanceBy(10s);
    EXPECT_THAT(takeLog(), ElementsAre("7 Notification received for global settings change: key"));

    enterMode(kWaiting);
    didStart();
    EXPECT_FALSE(manager().globalSettingsDidChangeEffectTimer());
    takeLog();
    didChange();
    loop_.advanceBy(2s);
    EXPECT_EQ(evaluations(), 1u);
    takeLog();
  }
}

TEST_F(SettingsTest, AChangeWithoutAKeyIsEvaluated) {
  didChange(Value());
  EXPECT_EQ(countInLog("Notification received for global settings change: (null)"), 1u);
  didChange(Dictionary{{"another", 1}});
  EXPECT_EQ(countInLog("Notification received for global settings change: (null)"), 2u);
  loop_.advanceBy(2s);
  EXPECT_EQ(evaluations(), 1u);
}

TEST_F(SettingsTest, RestartsOfSettingsServersAreOneEvaluation) {
  for (int server = 0; server < 8; ++server) manager().globalSettingsServerDidRestart();
  loop_.runReady();
  EXPECT_EQ(evaluations(), 1u);
}

// Services that are not ready.

TEST_F(SettingsTest, TheRetryLeavesAServiceWithMalformedFeaturesAlone) {
  Dictionary services = *catalogue()["Services"].dictionary();
  services.set(kAgent, entry("agent", {{"Features", "none"}}));
  services.set(kPrimary, entry("configd", {{"Features", "none"}}));
  install(catalogue(services));
  useHealth();
  for (const char* label : {kPrimary, kAgent, kHelper})
    manager().healthInfo()->reportUnreadyStateForService(label);
  manager().scheduleReevaluation();
  loop_.advanceBy(20s);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_TRUE(isRunning(kHelper));
  EXPECT_TRUE(isRunning(kPrimary));  // Every other service waits for it.
}

TEST_F(SettingsTest, WithoutAHealthRecordNothingIsReevaluated) {
  evaluate();
  EXPECT_FALSE(manager().reevaluationTimer());
}

TEST_F(SettingsTest, ReadyServicesAreNotReevaluated) {
  useHealth();
  evaluate();
  EXPECT_FALSE(manager().reevaluationTimer());
}

TEST_F(SettingsTest, UnreadyServicesAreRetriedEveryTwentySeconds) {
  useHealth();
  files_.remove(pathOf("agent"));
  files_.remove(pathOf("helper"));
  evaluate();
  const RunLoopHandle* const timer = manager().reevaluationTimer();
  EXPECT_TRUE(timer);
  manager().scheduleReevaluation();
  EXPECT_EQ(manager().reevaluationTimer(), timer);  // There is one timer at most.
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

TEST_F(SettingsTest, UnreadyServicesAreRetriedInAnyMode) {
  useHealth();
  for (const auto mode : {kNormal, kInstaller, kWaiting}) {
    enterMode(kNormal);
    files_.remove(pathOf("agent"));
    EXPECT_TRUE(jobs_.SMJobRemove(kSMDomainSystemLaunchd, kAgent, nullptr, true) ||
                mode == kNormal);
    evaluate();
    EXPECT_FALSE(isRunning(kAgent));
    addProgram("agent");
    enterMode(mode);
    loop_.advanceBy(20s);
    EXPECT_TRUE(isRunning(kAgent)) << mode;
  }
}

}  // namespace
