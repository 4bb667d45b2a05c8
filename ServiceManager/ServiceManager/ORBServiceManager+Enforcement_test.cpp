#include <chrono>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

// Its host goes as soon as it has taken a job.
class VanishingJobs final : public Jobs {
 public:
  explicit VanishingJobs(FakeJobs& jobs) : jobs_(jobs) {}
  std::expected<void, NSError> SMJobSubmit(std::string_view domain, const Value& job,
                                           const AuthorizationRef* authorization) override {
    auto submitted = jobs_.SMJobSubmit(domain, job, authorization);
    jobs_.setReachable(false);
    return submitted;
  }
  std::expected<void, NSError> SMJobRemove(std::string_view domain, std::string_view label,
                                           const AuthorizationRef* authorization,
                                           bool wait) override {
    return jobs_.SMJobRemove(domain, label, authorization, wait);
  }
  Value SMJobCopyDictionary(std::string_view domain, std::string_view label) override {
    return jobs_.SMJobCopyDictionary(domain, label);
  }

 private:
  FakeJobs& jobs_;
};

class EnforcementTest : public ServiceManagerFixture {
 protected:
  EnforcementTest() {
    use(catalogue());
    useHealth();
  }

  // Whether the block was called.
  bool enforceRunning(ORBServiceManager::Label label) {
    bool isCalled = false;
    manager().enforceRunningForService(label, [&] { isCalled = true; });
    return isCalled;
  }
  void run(const char* label) {
    manager().enforceRunningForService(label, nullptr);
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

TEST_F(EnforcementTest, ALaunchSubmitsTheJobAndHandsItsDictionaryBack) {
  const Value launched = manager().launchService(kAgent, true);
  EXPECT_EQ(launched["PID"], Value(process(kAgent)));
  EXPECT_EQ(launched["Program"], Value(pathOf("agent")));
  EXPECT_THAT(takeLog(), ElementsAre("7 Starting up service com.example.agent"));
}

TEST_F(EnforcementTest, AServiceWithoutAJobIsNotLaunched) {
  EXPECT_TRUE(manager().launchService("com.example.unknown", true).isNil());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(EnforcementTest, AMissingProgramIsNotLaunched) {
  files_.remove(pathOf("agent"));
  EXPECT_TRUE(manager().launchService(kAgent, true).isNil());
  EXPECT_THAT(takeLog(), ElementsAre("4 Cannot find program path for service: com.example.agent"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EnforcementTest, ADamagedProgramThatWasNeverStartedLeavesNothingToRemove) {
  damageProgram("agent");
  EXPECT_TRUE(manager().launchService(kAgent, true).isNil());
  EXPECT_THAT(takeLog(), ElementsAre("4 Program file for com.example.agent appears to be damaged"));
}

TEST_F(EnforcementTest, ADamagedProgramOfAKnownJobHasItRemoved) {
  useThrottle(3600);
  run(kAgent);
  jobs_.endProcess(kAgent);
  damageProgram("agent");
  EXPECT_TRUE(manager().launchService(kAgent, false).isNil());
  EXPECT_THAT(takeLog(), ElementsAre("4 Program file for com.example.agent appears to be damaged"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EnforcementTest, ALaunchThatFailsIsLoggedWithItsError) {
  jobs_.setUnstartable(pathOf("agent"), "bad interpreter");
  EXPECT_TRUE(manager().launchService(kAgent, true).isNil());
  const auto log = takeLog();
  ASSERT_EQ(log.size(), 3u);
  EXPECT_EQ(log[0], "7 Starting up service com.example.agent");
  EXPECT_THAT(log[1], testing::StartsWith("3 Unable to submit job:\n{"));
  EXPECT_EQ(log[2],
            "3 Unable to load com.example.agent.\nError Domain=CFErrorDomainLaunchd Code=2 \"job "
            "\"com.example.agent\": /opt/app/agent: bad interpreter\"");
}

// Keeping it running.

TEST_F(EnforcementTest, NilAndALabelWithoutAJobAreLeftAlone) {
  EXPECT_FALSE(enforceRunning(std::nullopt));
  EXPECT_FALSE(enforceRunning("com.example.unknown"));
  EXPECT_THAT(takeReports(), IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(EnforcementTest, AStoppedServiceIsStartedWatchedAndReported) {
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.agent"));
  EXPECT_THAT(takeLog(), ElementsAre("7 Service com.example.agent is not running",
                                     "7 Starting up service com.example.agent"));
}

TEST_F(EnforcementTest, ARunningServiceIsCheckedWatchedAndReported) {
  std::optional<NSError> error;
  manager().submitJobRequest(ORBServiceManager::jobInfoWithLabel(kAgent, manager().serviceInfo()),
                             kSMDomainSystemLaunchd, error);
  const int first = process(kAgent);
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_EQ(process(kAgent), first);
  EXPECT_EQ(jobs_.starts(kAgent), 1u);
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_EQ(signatures_.checks(pathOf("agent")), 1);
  EXPECT_THAT(takeReports(), ElementsAre("start com.example.agent"));
  EXPECT_THAT(takeLog(), ElementsAre("7 Configure and if necessary start any kexts which are "
                                     "associated with the already running service"));
}

TEST_F(EnforcementTest, AJobWithoutAProcessIsSubmittedAgainWithItsLastExitStatusInTheLog) {
  useThrottle(5);
  run(kAgent);
  manager().setOperatingMode(ORBOperatingModeInstaller);
  jobs_.endProcess(kAgent, {ExitStatus::Kind::kExited, 1});
  loop_.runReady();
  takeLog();
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_THAT(takeLog(), ElementsAre("7 Service com.example.agent is not running 256",
                                     "7 Starting up service com.example.agent"));
  EXPECT_TRUE(isRunning(kAgent));
}

TEST_F(EnforcementTest, AServiceThatNeverGetsAProcessIsUnreadyAndTheBlockIsCalledAllTheSame) {
  useThrottle(3600);
  run(kAgent);
  manager().setOperatingMode(ORBOperatingModeInstaller);
  jobs_.endProcess(kAgent);
  loop_.runReady();
  takeReports();
  EXPECT_TRUE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
}

TEST_F(EnforcementTest, AServiceThatTheSystemDoesNotSupportIsForgotten) {
  use(catalogue({{kAgent, entry("agent", {{"MinimumOSVersion", "10.12"}})}}));
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("stop monitoring com.example.agent"));
  EXPECT_THAT(takeLog(), ElementsAre("3 Unknown OS version: '10.12'.  Not starting service"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EnforcementTest, AServiceThatCannotBeLaunchedIsUnready) {
  files_.remove(pathOf("agent"));
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
}

TEST_F(EnforcementTest, ARunningServiceWithADamagedProgramIsRemovedUntilTheCheckPasses) {
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

TEST_F(EnforcementTest, AStoppedServiceWithADamagedProgramLosesItsJobToo) {
  useThrottle(3600);
  run(kAgent);
  jobs_.endProcess(kAgent);
  damageProgram("agent");
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EnforcementTest, ARunningServiceWhoseProgramHasGoneIsRemoved) {
  run(kAgent);
  files_.remove(pathOf("agent"));
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EnforcementTest, WithoutAHealthRecordEverythingGoesOn) {
  manager().setHealthInfo(nullptr);
  EXPECT_TRUE(enforceRunning(kAgent));
  damageProgram("agent");
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_TRUE(manager().enforceShutdownForService(kAgent));
  EXPECT_TRUE(manager().shutdownServices({kAgent}));
  EXPECT_TRUE(manager().evaluateServices());
  loop_.runReady();
}

TEST_F(EnforcementTest, AJobHostThatIsAwayMakesTheServiceUnready) {
  jobs_.setReachable(false);
  EXPECT_FALSE(enforceRunning(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
  jobs_.setReachable(true);
  EXPECT_TRUE(enforceRunning(kAgent));
}

// Stopping it.

TEST_F(EnforcementTest, AStopIsReportedBeforeTheJobGoes) {
  run(kAgent);
  EXPECT_TRUE(manager().enforceShutdownForService(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.agent"));
  EXPECT_THAT(takeLog(), ElementsAre("7 Did enforce shutdown for service: com.example.agent"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
  EXPECT_FALSE(manager().isServiceBeingTrackedForRespawn(kAgent));
}

TEST_F(EnforcementTest, TheExitOfAStoppedServiceIsStillSeen) {
  run(kAgent);
  const auto client = registerClient();
  manager().setOperatingMode(ORBOperatingModeInstaller);
  manager().enforceShutdownForService(kAgent);
  loop_.runReady();
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 0)));
  EXPECT_THAT(takeReports(),
              ElementsAre("stop com.example.agent", "forced stop com.example.agent"));
}

TEST_F(EnforcementTest, StoppingWhatHasNoJobSucceeds) {
  EXPECT_TRUE(manager().enforceShutdownForService(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.agent"));
  EXPECT_TRUE(manager().enforceShutdownForService(std::nullopt));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(EnforcementTest, AStopThatFailsIsLoggedTwice) {
  run(kAgent);
  RefusingJobs refusing(jobs_);
  ORBServiceManager manager(platform(refusing));
  EXPECT_FALSE(manager.enforceShutdownForService(kAgent));
  EXPECT_THAT(takeLog(), ElementsAre("3 Unable to remove job: com.example.agent\n:Error "
                                     "Domain=CFErrorDomainLaunchd Code=4 \"not you\"",
                                     "3 Unable to unload com.example.agent.\nError "
                                     "Domain=CFErrorDomainLaunchd Code=4 \"not you\""));
}

TEST_F(EnforcementTest, AStopThatTheJobHostDoesNotAnswerFails) {
  run(kAgent);
  jobs_.setReachable(false);
  EXPECT_FALSE(manager().enforceShutdownForService(kAgent));
  EXPECT_THAT(takeLog(),
              ElementsAre("3 Unable to remove job: com.example.agent\n:Error "
                          "Domain=CFErrorDomainLaunchd Code=7 \"the job host can't be reached\"",
                          "3 Unable to unload com.example.agent.\nError "
                          "Domain=CFErrorDomainLaunchd Code=7 \"the job host can't be reached\""));
  // As with every removal that fails.
  EXPECT_FALSE(manager().isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_THAT(takeReports(), ElementsAre("stop com.example.agent"));
  jobs_.setReachable(true);
  EXPECT_TRUE(manager().enforceShutdownForService(kAgent));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EnforcementTest, AStopThatTheJobHostDoesNotAnswerKeepsTheClientsMark) {
  run(kAgent);
  jobs_.setReachable(false);
  manager().stopServices({kAgent});
  EXPECT_TRUE(manager().isServiceBeingTrackedForUserClientShutdownRequest(kAgent));
  EXPECT_THAT(takeLog(), Contains(testing::HasSubstr("3 Unable to unload com.example.agent")));
  EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent));
}

TEST_F(EnforcementTest, AJobHostThatGoesAfterASubmissionIsNotWaitedFor) {
  VanishingJobs vanishing(jobs_);
  ORBServiceManager manager(platform(vanishing));
  manager.setServiceInfo(this->manager().serviceInfo());
  manager.setMonitoredProcessesInfo(this->manager().monitoredProcessesInfo());
  manager.setHealthInfo(std::make_unique<FakeServiceHealth>(reports_));
  const Instant before = loop_.now();
  manager.enforceRunningForService(kAgent, nullptr);
  EXPECT_EQ(loop_.now() - before, 5s);
  EXPECT_THAT(takeReports(), ElementsAre("unready com.example.agent"));
}

TEST_F(EnforcementTest, AStoppedServicesExtensionsAreForgotten) {
  use(catalogue({{kAgent, entry("agent", {{"KernelExtensions", Array{"net", 5, "file"}}})}}));
  manager().setKextsLoaded({"net", "file", "another"});
  manager().enforceShutdownForService(kAgent);
  EXPECT_THAT(manager().kextsLoaded(), ElementsAre("another"));
}

// The marks.

TEST_F(EnforcementTest, AMarkIsSetInTheLabelsRecordAlone) {
  manager().trackServiceForRespawn(kAgent, true);
  manager().trackServiceForUserClientShutdownRequest(kHelper, true);
  EXPECT_TRUE(manager().isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_FALSE(manager().isServiceBeingTrackedForUserClientShutdownRequest(kAgent));
  EXPECT_FALSE(manager().isServiceBeingTrackedForRespawn(kHelper));
  EXPECT_TRUE(manager().isServiceBeingTrackedForUserClientShutdownRequest(kHelper));
  manager().trackServiceForRespawn(kAgent, false);
  EXPECT_FALSE(manager().isServiceBeingTrackedForRespawn(kAgent));
}

TEST_F(EnforcementTest, ALabelWithoutARecordGetsNone) {
  manager().trackServiceForRespawn("com.example.unknown", true);
  manager().trackServiceForUserClientShutdownRequest(std::nullopt, true);
  EXPECT_EQ(manager().monitoredProcessesInfo().size(), 3u);
  EXPECT_FALSE(manager().isServiceBeingTrackedForRespawn("com.example.unknown"));
  EXPECT_FALSE(manager().isServiceBeingTrackedForUserClientShutdownRequest(std::nullopt));
}

// What the installer asks.

TEST_F(EnforcementTest, TheInstallersServicesAreStoppedAndReportedAndTheModeChanges) {
  run(kAgent);
  run(kHelper);
  EXPECT_TRUE(manager().shutdownServices({kAgent, kHelper}));
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeInstaller);
  EXPECT_THAT(takeReports(),
              ElementsAre("stop com.example.agent", "installer event com.example.agent",
                          "stop com.example.helper", "installer event com.example.helper"));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

TEST_F(EnforcementTest, AShutdownThatFailsIsAnsweredButEveryOtherServiceIsStopped) {
  run(kAgent);
  run(kHelper);
  RefusingJobs refusing(jobs_, kAgent);
  ORBServiceManager manager(platform(refusing));
  manager.setHealthInfo(std::make_unique<FakeServiceHealth>(reports_));
  EXPECT_FALSE(manager.shutdownServices({kAgent, kHelper}));
  EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent));
  EXPECT_THAT(takeReports(),
              ElementsAre("stop com.example.agent", "installer event com.example.agent",
                          "stop com.example.helper", "installer event com.example.helper"));
}

TEST_F(EnforcementTest, AShutdownThatTheJobHostDoesNotAnswerFails) {
  run(kAgent);
  jobs_.setReachable(false);
  EXPECT_FALSE(manager().shutdownServices({kAgent}));
  EXPECT_EQ(manager().operatingMode(), ORBOperatingModeInstaller);
  EXPECT_THAT(takeReports(),
              ElementsAre("stop com.example.agent", "installer event com.example.agent"));
  EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent));
}

TEST_F(EnforcementTest, WhatIsNoLabelIsPassedOver) {
  run(kHelper);
  EXPECT_TRUE(manager().shutdownServices({1, Array{}, kHelper, Value::nullMarker()}));
  EXPECT_THAT(jobs_.labels(), IsEmpty());
}

// A service that has announced its start.

class StartNotificationTest : public EnforcementTest {
 protected:
  StartNotificationTest() {
    use(catalogue({{kPrimary, entry("configd")},
                   {kAgent, entry("agent", {{"Notification", "up"}})},
                   {kHelper, entry("helper", {{"Notification", "up"}})}}));
  }
};

TEST_F(StartNotificationTest, TheFirstServiceOfThatNotificationIsEvaluated) {
  manager().handleServiceDidStartNotification({"up", std::nullopt, {}});
  EXPECT_EQ(countInLog("Evaluating service: com.example.agent"), 1u);
  EXPECT_EQ(countInLog("Evaluating service: com.example.helper"), 0u);
}

TEST_F(StartNotificationTest, ANotificationOfNobodysIsIgnored) {
  manager().handleServiceDidStartNotification({"another", std::nullopt, {}});
  EXPECT_THAT(takeLog(), IsEmpty());
}

}  // namespace
