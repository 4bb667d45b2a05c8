#include "ServiceManager/Supervision/ServiceEnforcement.h"

#include <chrono>

#include "Platform/Logging/LogMessageIds.h"
#include "Platform/Testing/KernelExtensions/KeepingHandler.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class ServiceEnforcementTest : public SupervisionFixture {
 protected:
  ServiceEnforcementTest() { useHealth(); }

  // Whether the block was called.
  bool enforceRunning(const char* label) {
    bool isCalled = false;
    enforcement_.enforceRunningForService(label, [&] { isCalled = true; });
    loop_.runReady();
    for (int i = 0; i < 24 && enforcement_.isWorking(); ++i) loop_.advanceBy(500ms);
    EXPECT_EQ(enforcement_.activityOf(label), ServiceActivity::kNothing);
    return isCalled;
  }
  Value launch(const char* label, bool firstTime) {
    return answerTo<Value>([&](ServiceEnforcement::LaunchAnswer answer) {
      enforcement_.launchService(label, firstTime, std::move(answer));
    });
  }
  bool stop(const char* label) {
    return answerTo<bool>([&](ServiceEnforcement::StopAnswer answer) {
      enforcement_.enforceShutdownForService(label, std::move(answer));
    });
  }
  void run(const char* label) {
    enforcement_.enforceRunningForService(label, nullptr);
    loop_.runReady();
    takeLog();
    takeReports();
  }
  void useThrottle(int seconds) {
    use(catalogue({{kAgent, Dictionary{{"Products", Array{kProduct}},
                                       {"JobSpec", Dictionary{{"Program", "agent"},
                                                              {"ThrottleInterval", seconds}}}}}}));
  }
};

// Starting a service.

TEST_F(ServiceEnforcementTest, ALaunchSubmitsTheJobAndReturnsItsDictionary) {
  const Value launched = launch(kAgent, true);
  EXPECT_EQ(launched["PID"], Value(process(kAgent)));
  EXPECT_EQ(launched["Program"], Value(pathOf("agent")));
  EXPECT_THAT(takeLog(), ElementsAre("7 Starting up service com.example.agent"));
}

TEST_F(ServiceEnforcementTest, AServiceWithoutAJobIsNotLaunched) {
  EXPECT_TRUE(launch("com.example.unknown", true).isNil());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ServiceEnforcementTest, AMissingProgramIsNotLaunched) {
  files_.remove(pathOf("agent"));
  EXPECT_TRUE(launch(kAgent, true).isNil());
  EXPECT_THAT(takeLog(), ElementsAre("4 Cannot find program path for service: com.example.agent"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(ServiceEnforcementTest, ADamagedProgramIsNotSubmitted) {
  damageProgram("agent");
  EXPECT_TRUE(launch(kAgent, true).isNil());
  queues_.runPending();
  EXPECT_THAT(logSink_.events(), ElementsAre(FakeLogSink::Event{kProgramDamagedId, kAgent, 0}));
  EXPECT_THAT(takeLog(), ElementsAre("4 Program file for com.example.agent appears to be damaged"));
}

TEST_F(ServiceEnforcementTest, ADamagedProgramsJobIsRemoved) {
  useThrottle(3600);
  run(kAgent);
  jobs_.endProcess(kAgent);
  damageProgram("agent");
  EXPECT_TRUE(launch(kAgent, false).isNil());
  EXPECT_THAT(takeLog(), ElementsAre("4 Program file for com.example.agent appears to be damaged"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(ServiceEnforcementTest, ALaunchThatFailsIsLoggedWithItsError) {
  jobs_.setUnstartable(pathOf("agent"), "bad interpreter");
  EXPECT_TRUE(launch(kAgent, true).isNil());
  const auto log = takeLog();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0], "7 Starting up service com.example.agent");
  EXPECT_THAT(log[1], testing::StartsWith("3 Unable to submit job:\n{"));
  EXPECT_EQ(log[2],
            "3 Unable to load com.example.agent.\nError Domain=CFErrorDomainLaunchd Code=2 \"job "
            "\"com.example.agent\": /opt/app/agent: bad interpreter\"");
}

// Keeping it running.

TEST_F(ServiceEnforcementTest, AServiceWithoutAJobIsLeftAlone) {
  EXPECT_FALSE(enforceRunning("com.example.unknown"));
  EXPECT_THAT(takeReports(), IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ServiceEnforcementTest, AStoppedServiceIsStartedWatchedAndReported) {
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_TRUE(records_.isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.agent"));
  EXPECT_THAT(takeLog(), ElementsAre("7 Service com.example.agent is not running",
                                     "7 Starting up service com.example.agent"));
}

TEST_F(ServiceEnforcementTest, ARunningServiceIsCheckedWatchedAndReported) {
  launchd_.submitJobRequest(catalogue_.jobInfo(kAgent), kSMDomainSystemLaunchd, [](const auto&) {});
  const int first = process(kAgent);
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_EQ(process(kAgent), first);
  EXPECT_EQ(jobs_.starts(kAgent), 1u);
  EXPECT_TRUE(records_.isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_EQ(signatures_.checks(pathOf("agent")), 1);
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.agent"));
  EXPECT_THAT(takeLog(), ElementsAre("7 Configure and if necessary start any kexts which are "
                                     "associated with the already running service"));
}

TEST_F(ServiceEnforcementTest, AJobWithoutAProcessIsSubmittedAgain) {
  useThrottle(5);
  run(kAgent);
  jobs_.endProcess(kAgent, {ExitStatus::Kind::kExited, 1});
  loop_.runReady();
  takeLog();
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_THAT(takeLog(), ElementsAre("7 Service com.example.agent is not running 256",
                                     "7 Starting up service com.example.agent"));
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(ServiceEnforcementTest, AServiceWithoutAProcessIsUnreadyButCallsBack) {
  useThrottle(3600);
  run(kAgent);
  jobs_.endProcess(kAgent);
  loop_.runReady();
  takeReports();
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
}

TEST_F(ServiceEnforcementTest, AnUnsupportedServiceIsForgotten) {
  use(catalogue({{kAgent, entry("agent", {{"MinimumOSVersion", "10.12"}})}}));
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("stop monitoring com.example.agent"));
  EXPECT_THAT(takeLog(), ElementsAre("3 Unknown OS version: '10.12'.  Not starting service"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(ServiceEnforcementTest, AServiceThatCannotBeLaunchedIsUnready) {
  files_.remove(pathOf("agent"));
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
}

TEST_F(ServiceEnforcementTest, ARunningServiceWithADamagedProgramIsRemoved) {
  run(kAgent);
  damageProgram("agent");
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
  EXPECT_THAT(takeLog(), ElementsAre("4 Program file for com.example.agent appears to be damaged"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());

  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  addProgram("agent");
  loop_.runReady();  // The old process's end.
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(ServiceEnforcementTest, ARunningServiceOutlivesACheckThatCannotBeMade) {
  run(kAgent);
  const auto before = jobs_.process(kAgent);
  signatures_.setShortage(true);
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_EQ(jobs_.process(kAgent), before);
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.agent"));
  EXPECT_THAT(takeLog(),
              testing::Contains("4 Program file for com.example.agent can't be checked now"));
}

TEST_F(ServiceEnforcementTest, AStoppedServiceIsNotStartedUnchecked) {
  signatures_.setShortage(true);
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
  EXPECT_THAT(takeLog(), ElementsAre("7 Service com.example.agent is not running",
                                     "4 Program file for com.example.agent can't be checked now"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  signatures_.setShortage(false);
  loop_.advanceBy(ProgramRechecks::kFirstPause);
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(ServiceEnforcementTest, AStoppedDamagedServiceLosesItsJobToo) {
  useThrottle(3600);
  run(kAgent);
  jobs_.endProcess(kAgent);
  damageProgram("agent");
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(ServiceEnforcementTest, ARunningServiceWithoutAProgramIsRemoved) {
  run(kAgent);
  files_.remove(pathOf("agent"));
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(ServiceEnforcementTest, WithoutTheJobHostTheServiceIsUnready) {
  jobs_.setReachable(false);
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
  jobs_.setReachable(true);
  EXPECT_TRUE(enforceRunning(kAgent));
}

TEST_F(ServiceEnforcementTest, AHealthRecordIsOptional) {
  health_ = nullptr;
  EXPECT_TRUE(enforceRunning(kAgent));
  damageProgram("agent");
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_TRUE(stop(kAgent));
}

// Stopping it.

TEST_F(ServiceEnforcementTest, AStopIsReportedBeforeTheJobIsRemoved) {
  run(kAgent);
  std::vector<std::string> reportsBefore;
  jobs_.setOnCopied([&] { reportsBefore = reports_; });
  EXPECT_TRUE(stop(kAgent));
  EXPECT_THAT(reportsBefore, ElementsAre("stop com.example.agent"));
  EXPECT_EQ(takeReports(), reportsBefore);
  EXPECT_THAT(takeLog(), ElementsAre("7 Did enforce shutdown for service: com.example.agent"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_FALSE(records_.isServiceBeingTrackedForRespawn(kAgent));
}

TEST_F(ServiceEnforcementTest, StoppingAServiceWithoutAJobSucceeds) {
  EXPECT_TRUE(stop(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.agent"));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ServiceEnforcementTest, AStopThatFailsIsLoggedTwice) {
  run(kAgent);
  jobs_.refuseRemoval(kAgent, "not you");
  EXPECT_FALSE(stop(kAgent));
  EXPECT_THAT(takeLog(), ElementsAre("3 Unable to remove job: com.example.agent\n:Error "
                                     "Domain=CFErrorDomainLaunchd Code=4 \"not you\"",
                                     "3 Unable to unload com.example.agent.\nError "
                                     "Domain=CFErrorDomainLaunchd Code=4 \"not you\""));
}

TEST_F(ServiceEnforcementTest, AStopWithoutTheJobHostFails) {
  run(kAgent);
  jobs_.setReachable(false);
  EXPECT_FALSE(stop(kAgent));
  EXPECT_THAT(takeLog(),
              ElementsAre("3 Unable to remove job: com.example.agent\n:Error "
                          "Domain=CFErrorDomainLaunchd Code=7 \"the job host can't be reached\"",
                          "3 Unable to unload com.example.agent.\nError "
                          "Domain=CFErrorDomainLaunchd Code=7 \"the job host can't be reached\""));
  // As with every removal that fails.
  EXPECT_FALSE(records_.isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.agent"));
  jobs_.setReachable(true);
  EXPECT_TRUE(stop(kAgent));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(ServiceEnforcementTest, AJobHostLostAfterASubmissionIsNotAwaited) {
  jobs_.setOnSubmitted([this] { jobs_.setReachable(false); });
  const Instant before = loop_.now();
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_EQ(loop_.now() - before, 5s);
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
}

TEST_F(ServiceEnforcementTest, AStoppedServicesExtensionsAreForgotten) {
  KeepingHandler::Kept kept;
  Dictionary withExtensions =
      catalogue({{kAgent, entry("agent", {{"KernelExtensions", Array{"net", 5, "file"}}})},
                 {kHelper, entry("helper", {{"KernelExtensions", Array{"another"}}})}});
  Dictionary extensions;
  for (const char* name : {"net", "file", "another"}) {
    const std::string identifier = std::string("com.example.nke.") + name;
    extensions.set(name, Dictionary{{"Identifier", identifier}});
    extensions_.install(identifier, [&kept] { return std::make_unique<KeepingHandler>(kept); });
  }
  withExtensions.set("KernelExtensions", extensions);
  use(withExtensions);
  run(kAgent);
  run(kHelper);
  ASSERT_THAT(control_.kextsLoaded(), ElementsAre("another", "file", "net"));
  EXPECT_TRUE(stop(kAgent));
  EXPECT_THAT(control_.kextsLoaded(), ElementsAre("another"));
}

// The release that a service needs.

class OSSupportTest : public SupervisionFixture {
 protected:
  bool isSupported(Value minimum, const char* release) {
    system_.setRelease(release, {10, 11, 0});
    use(catalogue({{kAgent, entry("agent", {{"MinimumOSVersion", std::move(minimum)}})}}));
    return enforcement_.checkOSSupportForService(kAgent);
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
  EXPECT_TRUE(enforcement_.checkOSSupportForService(kAgent));
  EXPECT_TRUE(enforcement_.checkOSSupportForService("com.example.unknown"));
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

}  // namespace
