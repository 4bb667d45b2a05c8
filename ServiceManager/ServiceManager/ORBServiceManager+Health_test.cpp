// The health record over the life of services, and the retries that follow from it.

#include <chrono>

#include "ServiceManager/ServiceManager/StartUp_fixture.h"
#include "ServiceManager/Supervision/HealthRecord.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::UnorderedElementsAre;

constexpr char kHostedManaged[] = "kKLXInstallTypeHostedManagedID";

class DaemonHealthTest : public StartUpFixture {
 protected:
  DaemonHealthTest() {
    keepsHealthRecord_ = true;
    installProduct(kHostedManagedGuid);
    install(catalogue(threeServices()));
  }

  static Dictionary hosted(Dictionary entry) {
    entry.set("Products", Array{kHostedManaged});
    return entry;
  }
  static Dictionary threeServices() {
    return {{kPrimary, hosted(entry("configd"))},
            {kAgent, hosted(entry("agent"))},
            {kHelper, hosted(entry("helper"))}};
  }
  // The three with that entry instead.
  void installWith(const char* label, Dictionary entry) {
    Dictionary services = threeServices();
    services.set(label, hosted(std::move(entry)));
    install(catalogue(services));
  }
  // A service that runs while the switch "on" is 1.
  void installFeature(const char* label) {
    Dictionary services = threeServices();
    services.set(label, hosted(entry("agent", {{"Features", Array{"feature"}}})));
    Dictionary all = catalogue(services);
    all.set("Features",
            Dictionary{
                {"feature",
                 Dictionary{{"Config", Array{Dictionary{{"Source", "common"},
                                                        {"Switches", Dictionary{{"on", 1}}}}}}}}});
    install(all);
  }

  // Until everything that can run does.
  void startAll() {
    startConfigurationServer();
    start();
    loop_.advanceBy(1s);
    takeLog();
  }

  ORBServiceManagerHealthInfo& health() {
    return dynamic_cast<ORBServiceManagerHealthInfo&>(*manager().healthInfo());
  }
  Value stateOf(const char* label) { return health().serviceStates()[label]; }
  std::int64_t crashesOf(const char* label) {
    return health().crashCounters()[label].integer().value_or(0);
  }
  Value summary() { return health().getHealthStateForServices(); }
  std::size_t reevaluations() { return countInLog("Reevaluating configuration for service(s): "); }
};

// Start-up and termination.

TEST_F(DaemonHealthTest, EveryServiceIsUnreadyUntilItRuns) {
  start();  // Without the configuration server only the primary service is started.
  EXPECT_EQ(health().serviceStates(),
            (Dictionary{{kPrimary, kRunning}, {kAgent, kUnready}, {kHelper, kUnready}}));
  EXPECT_TRUE(health().isReadyToReport());
  startConfigurationServer();
  post("com.vantor.notification.configd.didstart");
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 0}, {kAgent, 0}, {kHelper, 0}}));
}

TEST_F(DaemonHealthTest, ServicesAreListedUnderTheirProgramsOrTheirLabels) {
  Dictionary named = entry("agent");
  Dictionary job = *named["JobSpec"].dictionary();
  job.set("ProgramArguments", Array{"/opt/app/agent", "--quiet"});
  named.set("JobSpec", job);
  installWith(kAgent, named);
  startAll();
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 0}, {"/opt/app/agent", 0}, {kHelper, 0}}));
}

TEST_F(DaemonHealthTest, ADaemonThatEndsIsNotReadyToReport) {
  startAll();
  Program program(*this, 300);
  VantorDistantObject reporter(
      {loop_, program.connections, *otherCenter_, program.center, protocols_, system_},
      "ServiceManagerHealthInfo", kServiceManagerHealthProtocol, std::nullopt);
  EXPECT_EQ(reporter.sendMessage("isReadyToReport"), Value(true));
  EXPECT_EQ(reporter.sendMessage("getHealthStateForServices"),
            Value(Dictionary{{kPrimary, 0}, {kAgent, 0}, {kHelper, 0}}));
  manager().backgroundServiceWillTerminate({});
  EXPECT_EQ(reporter.sendMessage("isReadyToReport"), Value(false));
  manager_.reset();
  loop_.runReady();
  EXPECT_EQ(reporter.sendMessage("isReadyToReport"), Value());
}

TEST_F(DaemonHealthTest, AnotherProductHasNoHealthServer) {
  installProduct(kServerManagedGuid);
  install(catalogue());
  startAll();
  EXPECT_FALSE(manager().healthInfo());
  EXPECT_FALSE(connections_.connectionWithRegisteredName("ServiceManagerHealthInfo"));
  EXPECT_FALSE(manager().reevaluationTimer());
}

TEST_F(DaemonHealthTest, ADaemonThatCannotSelectItsServicesReportsNothing) {
  install(catalogue({{kPrimary, entry("configd", {{"Products", Array{"another"}}})}}));
  start();
  EXPECT_FALSE(health().isReadyToReport());
  EXPECT_EQ(summary(), Value(Dictionary()));
}

// Crashes.

TEST_F(DaemonHealthTest, ARestartedServiceIsHealthyAndItsCrashCounted) {
  startAll();
  kill(kAgent);
  EXPECT_EQ(stateOf(kAgent), Value(kRunning));
  EXPECT_EQ(crashesOf(kAgent), 1);
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 0}, {kAgent, 0}, {kHelper, 0}}));
}

TEST_F(DaemonHealthTest, ACrashLoopIsUnhealthyForOneSummary) {
  Dictionary throttled = entry("agent");
  throttled.set("JobSpec", Dictionary{{"Program", "agent"}, {"ThrottleInterval", 10}});
  installWith(kAgent, throttled);
  startAll();
  for (int crash = 0; crash < 5; ++crash) {
    kill(kAgent);
    loop_.advanceBy(10s);  // Until the throttle lets it start again.
    ASSERT_TRUE(isRunning(kAgent));
    ASSERT_EQ(stateOf(kAgent), Value(kRunning));
  }
  EXPECT_EQ(crashesOf(kAgent), 5);
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 0}, {kAgent, 1}, {kHelper, 0}}));
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 0}, {kAgent, 0}, {kHelper, 0}}));
}

TEST_F(DaemonHealthTest, AHundredForcedStopsAreCountedExactly) {
  startAll();
  for (int stop = 1; stop <= 100; ++stop) {
    loop_.advanceBy(1s);  // After so long a run it restarts at once.
    kill(kAgent);
    if (stop % 4 == 0) {  // Two at the same instant.
      jobs_.endProcess(kHelper);
      kill(kPrimary);
    }
    ASSERT_EQ(crashesOf(kAgent), stop);
  }
  EXPECT_EQ(crashesOf(kHelper), 25);
  EXPECT_EQ(crashesOf(kPrimary), 25);
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 1}, {kAgent, 1}, {kHelper, 1}}));
  EXPECT_EQ(crashesOf(kAgent), 0);
}

TEST_F(DaemonHealthTest, ACrashWithoutAnEvaluationLeavesTheServiceUnready) {
  startAll();
  enterMode(ORBOperatingModeWaitingForPrimaryService);
  kill(kAgent);
  EXPECT_EQ(stateOf(kAgent), Value(kUnready));
  EXPECT_EQ(summary()[kAgent], Value(kUnhealthy));
}

// Services that are stopped on purpose.

TEST_F(DaemonHealthTest, AStopByTheUserInterfaceIsNoCrash) {
  startAll();
  manager().stopServices({kAgent});
  loop_.runReady();
  EXPECT_EQ(countInLog("Reported forced stop for service: com.example.agent"), 1u);
  EXPECT_EQ(countInLog("Evaluating the system configuration"), 1u);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_EQ(stateOf(kAgent), Value(kStopped));
  EXPECT_EQ(crashesOf(kAgent), 0);
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 0}, {kHelper, 0}}));

  loop_.advanceBy(1min);
  EXPECT_FALSE(isRunning(kAgent));
  manager().startServices({kAgent});
  loop_.runReady();
  EXPECT_EQ(stateOf(kAgent), Value(kRunning));
}

TEST_F(DaemonHealthTest, AFeatureThatTurnsOffIsNotRetried) {
  settings("common")["on"] = 1;
  installFeature(kAgent);
  startAll();
  EXPECT_EQ(stateOf(kAgent), Value(kRunning));
  settings("common")["on"] = 0;
  post("KLXGlobalSettingsDidChangeNotification");
  loop_.advanceBy(2s + 3s - 1ns);
  EXPECT_EQ(stateOf(kAgent), Value(kRunning));
  loop_.advanceBy(1ns);
  EXPECT_EQ(stateOf(kAgent), Value(kStopped));
  EXPECT_EQ(crashesOf(kAgent), 0);
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 0}, {kHelper, 0}}));
  loop_.advanceBy(1min);
  EXPECT_FALSE(isRunning(kAgent));
}

TEST_F(DaemonHealthTest, AFeatureThatWasNeverOnIsNotRetried) {
  settings("common")["on"] = 0;
  installFeature(kAgent);
  startAll();
  EXPECT_EQ(stateOf(kAgent), Value(kUnready));  // Until its shutdown is due.
  EXPECT_TRUE(manager().reevaluationTimer());
  loop_.advanceBy(3s);
  EXPECT_EQ(stateOf(kAgent), Value(kStopped));
  loop_.advanceBy(1min);
  EXPECT_EQ(jobs_.starts(kAgent), 0u);
  EXPECT_FALSE(manager().reevaluationTimer());
}

// The installer.

TEST_F(DaemonHealthTest, SummariesOmitTheInstallersServices) {
  startAll();
  EXPECT_TRUE(shutDown({kAgent}));
  loop_.runReady();
  EXPECT_EQ(stateOf(kAgent), Value(kUpdating));
  EXPECT_FALSE(health().isReadyToReport());
  EXPECT_EQ(crashesOf(kAgent), 0);
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 0}, {kHelper, 0}}));

  manager().evaluateServices();
  EXPECT_EQ(stateOf(kAgent), Value(kRunning));  // Taken for granted until it is evaluated.
  EXPECT_TRUE(health().isReadyToReport());
  loop_.advanceBy(200ms);
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_EQ(stateOf(kAgent), Value(kRunning));
}

TEST_F(DaemonHealthTest, AServiceMissingAfterTheInstallerIsRetried) {
  startAll();
  shutDown({kAgent});
  files_.remove(pathOf("agent"));
  manager().evaluateServices();
  loop_.advanceBy(200ms);
  EXPECT_EQ(stateOf(kAgent), Value(kUnready));
  addProgram("agent");
  loop_.advanceBy(20s);
  EXPECT_EQ(stateOf(kAgent), Value(kRunning));
}

TEST_F(DaemonHealthTest, AFailedStopForTheInstallerIsReportedToo) {
  jobs_.refuseRemoval(kAgent, "not you");
  startConfigurationServer();
  start();
  loop_.advanceBy(1s);
  EXPECT_FALSE(shutDown({kPrimary, kAgent, kHelper}));
  loop_.runReady();
  EXPECT_EQ(health().serviceStates(),
            (Dictionary{{kPrimary, kUpdating}, {kAgent, kUpdating}, {kHelper, kUpdating}}));
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(DaemonHealthTest, AnUnreadyServiceIsRetriedDuringAnInstallation) {
  files_.remove(pathOf("helper"));
  startAll();
  shutDown({kAgent});
  addProgram("helper");
  loop_.advanceBy(20s);
  EXPECT_TRUE(isRunning(kHelper));
  EXPECT_FALSE(isRunning(kAgent));  // The installer's service is left alone.
}

// Services in trouble.

TEST_F(DaemonHealthTest, UnreadyServicesAreRetriedUntilTheyRun) {
  files_.remove(pathOf("agent"));
  damageProgram("helper");
  startAll();
  EXPECT_THAT(health().problemServices(), UnorderedElementsAre(kAgent, kHelper));
  const std::string both =
      "Reevaluating configuration for service(s): [com.example.agent, com.example.helper]";
  for (std::size_t round = 1; round <= 3; ++round) {
    loop_.advanceBy(20s);
    EXPECT_EQ(countInLog(both), round);
  }
  EXPECT_EQ(reevaluations(), 3u);
  addProgram("agent");
  loop_.advanceBy(20s);
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_EQ(countInLog(both), 4u);
  addProgram("helper");
  loop_.advanceBy(20s);
  EXPECT_EQ(countInLog("Reevaluating configuration for service(s): [com.example.helper]"), 1u);
  EXPECT_THAT(health().problemServices(), IsEmpty());
  EXPECT_FALSE(manager().reevaluationTimer());
  loop_.advanceBy(1h);
  EXPECT_EQ(reevaluations(), 5u);
}

TEST_F(DaemonHealthTest, ADamagedServiceReturnsWhenItsProgramIsRepaired) {
  startAll();
  damageProgram("agent");
  evaluate();
  loop_.runReady();
  EXPECT_EQ(stateOf(kAgent), Value(kUnready));
  EXPECT_THAT(jobs_.labels(), ElementsAre(kPrimary, kHelper));
  loop_.advanceBy(20s);
  EXPECT_FALSE(isRunning(kAgent));
  addProgram("agent");
  loop_.advanceBy(20s);
  EXPECT_EQ(stateOf(kAgent), Value(kRunning));
}

TEST_F(DaemonHealthTest, AnUnreadyPrimaryServiceIsRetriedToo) {
  startConfigurationServer();
  files_.remove(pathOf("configd"));
  start();
  loop_.advanceBy(100ms);
  EXPECT_THAT(health().problemServices(), UnorderedElementsAre(kPrimary, kAgent, kHelper));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  addProgram("configd");
  loop_.advanceBy(20s);
  EXPECT_THAT(health().problemServices(), IsEmpty());
}

TEST_F(DaemonHealthTest, AnUnsupportedServiceIsForgottenAndNotRetried) {
  installWith(kAgent, entry("agent", {{"MinimumOSVersion", "10.12"}}));
  startAll();
  EXPECT_EQ(stateOf(kAgent), Value());
  EXPECT_EQ(summary(), Value(Dictionary{{kPrimary, 0}, {kHelper, 0}}));
  EXPECT_FALSE(manager().reevaluationTimer());
}

TEST_F(DaemonHealthTest, AServiceWithoutAProcessIsUnready) {
  Dictionary throttled = entry("agent");
  throttled.set("JobSpec", Dictionary{{"Program", "agent"}, {"ThrottleInterval", 3600}});
  installWith(kAgent, throttled);
  startAll();
  kill(kAgent);
  EXPECT_FALSE(isRunning(kAgent));
  EXPECT_EQ(stateOf(kAgent), Value(kUnready));
  EXPECT_TRUE(manager().reevaluationTimer());
}

TEST_F(DaemonHealthTest, AServiceThatCannotBeWatchedCountsAsRunning) {
  exitWatcher_.setWatchLimit(0);
  startAll();
  EXPECT_FALSE(manager().isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_EQ(stateOf(kAgent), Value(kRunning));
}

}  // namespace
