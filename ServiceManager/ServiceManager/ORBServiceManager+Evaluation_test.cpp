#include <chrono>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

class EvaluationTest : public ServiceManagerFixture {
 protected:
  EvaluationTest() { use(catalogue()); }

  // A feature service with these features, beside the primary service.
  void useScanner(Value features, Dictionary allFeatures) {
    Dictionary withFeatures =
        catalogue({{kPrimary, entry("configd")},
                   {kScanner, entry("scanner", {{"Features", std::move(features)}})}});
    withFeatures.set("Features", std::move(allFeatures));
    use(withFeatures);
  }
  void useScannerWithSwitches(Dictionary switches) {
    useScanner(Array{"scan"}, {{"scan", feature("common", std::move(switches))}});
  }
  static Dictionary feature(const char* source, Dictionary switches) {
    return {{"Config", Array{Dictionary{{"Source", source}, {"Switches", std::move(switches)}}}}};
  }

  void evaluateScanner() {
    manager().evaluateInformationForService(kScanner);
    loop_.runReady();
  }
};

TEST_F(EvaluationTest, CoreServicesRunAfterThePrimaryService) {
  const auto client = registerClient();
  takeLog();
  evaluate();
  EXPECT_THAT(client->notices, ElementsAre(notice(kPrimary, 1, process(kPrimary)),
                                           notice(kAgent, 1, process(kAgent)),
                                           notice(kHelper, 1, process(kHelper))));
  EXPECT_THAT(takeLog(), ElementsAre(kEvaluating, "7 Service com.example.configd is not running",
                                     "7 Starting up service com.example.configd",
                                     "7 Evaluating service: com.example.agent",
                                     "7 Evaluating service: com.example.helper",
                                     "7 Service com.example.agent is not running",
                                     "7 Starting up service com.example.agent",
                                     "7 Service com.example.helper is not running",
                                     "7 Starting up service com.example.helper"));
}

TEST_F(EvaluationTest, ServicesAreEvaluatedInNormalModeOnly) {
  for (const auto mode : {ORBOperatingModeInstaller, ORBOperatingModeWaitingForPrimaryService}) {
    enterMode(mode);
    evaluate();
    EXPECT_THAT(takeLog(), ElementsAre(kEvaluating));
    EXPECT_THAT(jobs_.labels(), IsEmpty());
    EXPECT_EQ(manager().operatingMode(), mode);
  }
}

TEST_F(EvaluationTest, AStoppedPrimaryServiceEndsTheEvaluation) {
  manager().trackServiceForUserClientShutdownRequest(kPrimary, true);
  evaluate();
  EXPECT_THAT(takeLog(), ElementsAre(kEvaluating,
                                     "7 com.example.configd is not actively being monitored as per "
                                     "the request of the user interface"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EvaluationTest, AStoppedPrimaryServiceSchedulesNoRetry) {
  useHealth();
  manager().healthInfo()->reportUnreadyStateForService(kAgent);
  manager().trackServiceForUserClientShutdownRequest(kPrimary, true);
  evaluate();
  EXPECT_FALSE(manager().reevaluationTimer());
}

TEST_F(EvaluationTest, WithoutThePrimaryServiceNoOtherIsEvaluated) {
  damageProgram("configd");
  evaluate();
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_THAT(takeLog(), Not(Contains("7 Evaluating service: com.example.agent")));
}

TEST_F(EvaluationTest, AServiceThatCannotStartAffectsNoOther) {
  files_.remove(pathOf("agent"));
  evaluate();
  EXPECT_THAT(jobs_.labels(), ElementsAre(kPrimary, kHelper));
}

TEST_F(EvaluationTest, InInstallerModeServicesAreOnlyLogged) {
  enterMode(ORBOperatingModeInstaller);
  manager().evaluateInformationForService(kAgent);
  loop_.runReady();
  EXPECT_THAT(takeLog(), ElementsAre("7 Installer operation mode: Cannot evalaute feature "
                                     "information for service: com.example.agent at this time"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EvaluationTest, InWaitingModeServicesAreOnlyLogged) {
  enterMode(ORBOperatingModeWaitingForPrimaryService);
  manager().evaluateInformationForService(kAgent);
  loop_.runReady();
  EXPECT_THAT(takeLog(), ElementsAre("7 Primary Service is not ready: Cannot evalaute feature "
                                     "information for service: com.example.agent at this time"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EvaluationTest, AnEvaluationLeavesAStoppedServiceAlone) {
  manager().trackServiceForUserClientShutdownRequest(kAgent, true);
  manager().evaluateInformationForService(kAgent);
  loop_.runReady();
  EXPECT_THAT(takeLog(), ElementsAre("7 com.example.agent is not actively being monitored as per "
                                     "the request of the user interface"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EvaluationTest, AMatchingSwitchMakesAFeatureServiceRun) {
  settings("common")["mode"] = "on";
  useScannerWithSwitches({{"mode", "on"}});
  evaluateScanner();
  EXPECT_TRUE(isRunning(kScanner));
  loop_.advanceBy(10s);
  EXPECT_TRUE(isRunning(kScanner));
}

TEST_F(EvaluationTest, WithoutAMatchAFeatureServiceIsShutDownLater) {
  settings("common")["mode"] = "on";
  useScannerWithSwitches({{"mode", "on"}});
  evaluateScanner();
  settings("common")["mode"] = "off";
  evaluateScanner();
  loop_.advanceBy(3s - 1ns);
  EXPECT_TRUE(isRunning(kScanner));
  loop_.advanceBy(1ns);
  EXPECT_THAT(jobs_.labels(), Not(Contains(kScanner)));
}

TEST_F(EvaluationTest, APendingShutdownIsNotWithdrawn) {
  useScannerWithSwitches({{"mode", "on"}});
  settings("common")["mode"] = "off";
  evaluateScanner();
  settings("common")["mode"] = "on";
  evaluateScanner();
  EXPECT_TRUE(isRunning(kScanner));
  enterMode(ORBOperatingModeInstaller);  // The mode is not checked again, either.
  loop_.advanceBy(3s);
  EXPECT_FALSE(isRunning(kScanner));
}

TEST_F(EvaluationTest, ASwitchTurnedBackOnRestartsTheService) {
  useScannerWithSwitches({{"mode", "on"}});
  settings("common")["mode"] = "on";
  evaluate();
  const int first = process(kScanner);
  settings("common")["mode"] = "off";
  evaluate();
  settings("common")["mode"] = "on";
  evaluate();
  EXPECT_EQ(process(kScanner), first);
  loop_.advanceBy(3s);  // The stop is not withdrawn, and the end that it causes is evaluated.
  EXPECT_TRUE(isRunning(kScanner));
  EXPECT_NE(process(kScanner), first);
}

TEST_F(EvaluationTest, ASwitchTurnedOffAndOnWithinTwoSecondsStopsNothing) {
  useScannerWithSwitches({{"mode", "on"}});
  settings("common")["mode"] = "on";
  evaluate();
  const int first = process(kScanner);
  for (const char* mode : {"off", "on"}) {
    settings("common")["mode"] = mode;
    post("KLXGlobalSettingsDidChangeNotification");
    loop_.advanceBy(900ms);
  }
  loop_.advanceBy(10s);
  EXPECT_EQ(process(kScanner), first);
}

TEST_F(EvaluationTest, AnAbsentSwitchShutsTheServiceDownWithAWarning) {
  useHealth();
  settings("common")["another"] = 1;
  useScannerWithSwitches({{"mode", 1}});
  evaluateScanner();
  EXPECT_THAT(takeLog(), ElementsAre("7 Evaluating service: com.example.scanner",
                                     "4 scan exposes an invalid configuration switch key \"mode\" "
                                     "referenced by service com.example.scanner"));
  loop_.advanceBy(3s);
  EXPECT_FALSE(isRunning(kScanner));
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.scanner"));
}

TEST_F(EvaluationTest, ANumberClashesWithATextAndIsLogged) {
  settings("common")["mode"] = "1";
  useScannerWithSwitches({{"mode", 1}});
  evaluateScanner();
  EXPECT_FALSE(isRunning(kScanner));
  EXPECT_THAT(takeLog(),
              ElementsAre("7 Evaluating service: com.example.scanner",
                          "3 com.example.scanner:The expected object for the switchkey \"mode\" do "
                          "not match the return switchkey value \"1\" of type \"NSString\""));
}

TEST_F(EvaluationTest, AClashDoesNotAffectOtherSwitches) {
  settings("common") = {{"text", "x"}, {"number", 5}};
  useScannerWithSwitches({{"text", 1}, {"number", 5}});
  evaluateScanner();
  EXPECT_TRUE(isRunning(kScanner));
  EXPECT_EQ(countInLog("of type \"NSString\""), 1u);
}

TEST_F(EvaluationTest, AnExpectedValueOfAnotherTypeNeverMatches) {
  settings("common")["mode"] = Array{1};
  useScannerWithSwitches({{"mode", Array{1}}});
  evaluateScanner();
  EXPECT_FALSE(isRunning(kScanner));
  EXPECT_THAT(takeLog(), ElementsAre("7 Evaluating service: com.example.scanner"));
}

TEST_F(EvaluationTest, AnySwitchOfAnyFeatureIsEnough) {
  const Dictionary off = feature("common", {{"a", 1}, {"b", 1}});
  const Dictionary last{
      {"Config",
       Array{Dictionary{{"Source", "common"}, {"Switches", Dictionary{{"a", 1}}}},
             Dictionary{{"Source", "update"}, {"Switches", Dictionary{{"c", 1}, {"d", "yes"}}}}}}};
  settings("common") = {{"a", 0}, {"b", 0}};
  settings("update") = {{"c", 0}, {"d", "yes"}};
  useScanner(Array{"off", "last"}, {{"off", off}, {"last", last}});
  evaluateScanner();
  EXPECT_TRUE(isRunning(kScanner));
  loop_.advanceBy(3s);
  EXPECT_TRUE(isRunning(kScanner));

  settings("update")["d"] = "no";
  evaluateScanner();
  loop_.advanceBy(3s);
  EXPECT_FALSE(isRunning(kScanner));
}

TEST_F(EvaluationTest, AFurtherMatchingSwitchJoinsTheStart) {
  settings("common") = {{"a", 1}, {"b", 1}};
  useScannerWithSwitches({{"a", 1}, {"b", 1}});
  evaluateScanner();
  EXPECT_EQ(jobs_.starts(kScanner), 1u);
  EXPECT_EQ(countInLog("Starting up service com.example.scanner"), 1u);
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kScanner));
}

TEST_F(EvaluationTest, MalformedFeaturesLeaveTheServiceAsItIs) {
  useScanner("scan", {{"scan", feature("common", {{"mode", 1}})}});
  settings("common")["mode"] = 1;
  evaluateScanner();
  EXPECT_THAT(takeLog(), ElementsAre("7 Evaluating service: com.example.scanner",
                                     "3 Malformed features referrences information encountered"));
  EXPECT_FALSE(isRunning(kScanner));

  manager().submitJobRequest(ORBServiceManager::jobInfoWithLabel(kScanner, manager().serviceInfo()),
                             kSMDomainSystemLaunchd, [](const auto&) {});
  evaluateScanner();
  loop_.advanceBy(10s);
  EXPECT_TRUE(isRunning(kScanner));
}

TEST_F(EvaluationTest, AFeatureServiceWithoutFeaturesIsShutDown) {
  useHealth();
  useScanner(Array{}, {});
  evaluateScanner();
  loop_.advanceBy(3s);
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.scanner"));
}

TEST_F(EvaluationTest, AMalformedPartOfAFeatureCountsAsAbsent) {
  const Dictionary features{
      {"text", "x"},
      {"config", Dictionary{{"Config", "x"}}},
      {"entries", Dictionary{{"Config", Array{"x", 1, Dictionary{}}}}},
      {"switches",
       Dictionary{{"Config", Array{Dictionary{{"Source", "common"}, {"Switches", Array{}}}}}}}};
  useScanner(Array{1, "unknown", "text", "config", "entries", "switches"}, features);
  evaluateScanner();
  EXPECT_THAT(takeLog(),
              ElementsAre("7 Evaluating service: com.example.scanner",
                          "3 Unable to resolve method name for selector: "
                          "commonSettingsClientWithDelegate:: Exception: "
                          "+[KLXGlobalSettingsClient commonSettingsClientWithDelegate:]: "
                          "unrecognized selector sent to class"));
  EXPECT_FALSE(isRunning(kScanner));
}

TEST_F(EvaluationTest, AnUnknownSourceIsLoggedOnce) {
  useScannerWithSwitches({{"a", 1}, {"b", 1}});
  for (int evaluation = 0; evaluation < 3; ++evaluation) evaluateScanner();
  EXPECT_EQ(countInLog("Unable to resolve method name for selector: "
                       "commonSettingsClientWithDelegate:: Exception: "),
            1u);
  EXPECT_EQ(countInLog("exposes an invalid configuration switch key"), 6u);
}

// The modes, event by event.

class OperatingModeTest : public EvaluationTest {
 protected:
  void expectEvaluated() { EXPECT_EQ(countInLog("Evaluating the system configuration"), 1u); }
  void expectNotEvaluated() { EXPECT_EQ(countInLog("Evaluating the system configuration"), 0u); }
};

TEST_F(OperatingModeTest, Waiting_WatchdogAndServerUp_NormalAndEvaluatedAtOnce) {
  startConfigurationServer();
  enterMode(ORBOperatingModeWaitingForPrimaryService);
  manager().evaluateWaitingForPrimaryServiceOperatingMode();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  expectEvaluated();
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(OperatingModeTest, Waiting_WatchdogAndServerDown_Waiting) {
  enterMode(ORBOperatingModeWaitingForPrimaryService);
  manager().evaluateWaitingForPrimaryServiceOperatingMode();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  expectNotEvaluated();
}

TEST_F(OperatingModeTest, Waiting_WatchdogAndServerSaysNo_Waiting) {
  startConfigurationServer();
  configurationServer_.answer = Value(false);
  enterMode(ORBOperatingModeWaitingForPrimaryService);
  manager().evaluateWaitingForPrimaryServiceOperatingMode();
  loop_.runReady();
  EXPECT_EQ(configurationServer_.questions, 1);
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  expectNotEvaluated();
}

TEST_F(OperatingModeTest, Normal_WatchdogAndServerUp_NormalAndNothing) {
  startConfigurationServer();
  manager().evaluateWaitingForPrimaryServiceOperatingMode();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
  expectNotEvaluated();
}

TEST_F(OperatingModeTest, Normal_WatchdogAndServerDown_WaitingAndPrimaryNotStarted) {
  manager().evaluateWaitingForPrimaryServiceOperatingMode();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  expectNotEvaluated();
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(OperatingModeTest, Installer_Watchdog_Installer) {
  startConfigurationServer();
  enterMode(ORBOperatingModeInstaller);
  manager().evaluateWaitingForPrimaryServiceOperatingMode();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeInstaller);
  EXPECT_EQ(configurationServer_.questions, 0);
  expectNotEvaluated();
}

TEST_F(OperatingModeTest, OnlyTrueMeansThatTheServerIsUp) {
  startConfigurationServer();
  for (const Value& answer : {Value(2), Value("YES"), Value(), Value(Array{true})}) {
    configurationServer_.answer = answer;
    enterMode(ORBOperatingModeWaitingForPrimaryService);
    manager().evaluateWaitingForPrimaryServiceOperatingMode();
    loop_.runReady();
    EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  }
  configurationServer_.answer = std::unexpected(NSException{kNSInvalidArgumentException, "no", {}});
  manager().evaluateWaitingForPrimaryServiceOperatingMode();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeWaitingForPrimaryService);
  configurationServer_.answer = Value(1);  // the same number as true
  manager().evaluateWaitingForPrimaryServiceOperatingMode();
  loop_.runReady();
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeNormal);
}

}  // namespace
