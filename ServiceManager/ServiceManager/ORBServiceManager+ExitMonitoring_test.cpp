#include <chrono>
#include <functional>
#include <utility>

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class ExitMonitoringTest : public ServiceManagerFixture {
 protected:
  ExitMonitoringTest() { use(catalogue()); }

  void submit(const char* label, int throttle = 0) {
    Dictionary job =
        *ORBServiceManager::jobInfoWithLabel(label, manager().serviceInfo()).dictionary();
    job.set("ThrottleInterval", throttle);
    EXPECT_TRUE(jobs_.SMJobSubmit(kSMDomainSystemLaunchd, job, nullptr));
  }
  bool monitor(ORBServiceManager::Label label) {
    return manager().monitorJobWithIdentifier(label, false);
  }
  bool isMonitored(const char* label) { return manager().isServiceBeingTrackedForRespawn(label); }
};

TEST_F(ExitMonitoringTest, ARunningServiceIsWatchedAndTheClientsAreTold) {
  const auto client = registerClient();
  takeLog();
  submit(kAgent);
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_TRUE(isMonitored(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 1u);
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, process(kAgent))));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ExitMonitoringTest, OnlyTheMonitoredMarkOfTheRecordChanges) {
  submit(kAgent);
  monitor(kAgent);
  EXPECT_EQ(manager().monitoredProcessesInfo()[kAgent],
            Value(Dictionary{
                {"Monitored", true}, {"PID", -1000}, {"kORBUserClientDidRequestShutdown", false}}));
  EXPECT_EQ(manager().monitoredProcessesInfo()[kHelper], initialMonitoringRecord());
  EXPECT_TRUE(manager().monitoredProcessesRunLoopSources().empty());
}

TEST_F(ExitMonitoringTest, ANilOrBlankLabelIsRefused) {
  EXPECT_FALSE(monitor(std::nullopt));
  EXPECT_FALSE(monitor(""));
  EXPECT_FALSE(monitor(" \t\n\u2028"));
  const std::string line = "4 Cannot monitor a process with invalid job identifier";
  EXPECT_THAT(takeLog(), ElementsAre(line, line, line));
}

// Counts the looks at a job, and lets things happen in between.
class CountedJobs final : public Jobs {
 public:
  explicit CountedJobs(Jobs& jobs) : jobs_(jobs) {}
  std::expected<void, NSError> SMJobSubmit(std::string_view domain, const Value& job,
                                           const AuthorizationRef* authorization) override {
    return jobs_.SMJobSubmit(domain, job, authorization);
  }
  std::expected<void, NSError> SMJobRemove(std::string_view domain, std::string_view label,
                                           const AuthorizationRef* authorization,
                                           bool wait) override {
    return jobs_.SMJobRemove(domain, label, authorization, wait);
  }
  Value SMJobCopyDictionary(std::string_view domain, std::string_view label) override {
    ++copies;
    const Value job = jobs_.SMJobCopyDictionary(domain, label);
    if (onCopied) std::exchange(onCopied, {})();
    return job;
  }
  int copies = 0;
  std::function<void()> onCopied;  // called after the next one, before it is answered

 private:
  Jobs& jobs_;
};

TEST_F(ExitMonitoringTest, AJobThatNeverGetsAProcessIsLookedAtSixTimesInTwelveSeconds) {
  CountedJobs counted(jobs_);
  ORBServiceManager manager(platform(counted));
  submit(kAgent, 3600);
  jobs_.endProcess(kAgent);
  // Whether a failure is to be retried makes no difference.
  for (const bool retry : {false, true}) {
    const Instant before = loop_.now();
    counted.copies = 0;
    EXPECT_FALSE(manager.monitorJobWithIdentifier(kAgent, retry));
    EXPECT_EQ(counted.copies, 6);
    EXPECT_EQ(loop_.now() - before, 12s);
    EXPECT_THAT(takeLog(), ElementsAre("4 Could not determine the PID of the requested job "
                                       "label:com.example.agent"));
  }
}

TEST_F(ExitMonitoringTest, AJobThatTheHostCannotTellOfIsLookedAtOnce) {
  CountedJobs counted(jobs_);
  ORBServiceManager manager(platform(counted));
  submit(kAgent);
  jobs_.setReachable(false);
  const Instant before = loop_.now();
  EXPECT_FALSE(manager.monitorJobWithIdentifier(kAgent, true));
  EXPECT_EQ(counted.copies, 1);
  EXPECT_EQ(loop_.now() - before, 5s);  // The look's own: as long as a host takes to come back.
  EXPECT_THAT(takeLog(), ElementsAre("4 Could not determine the PID of the requested job "
                                     "label:com.example.agent"));
  jobs_.setReachable(true);
  EXPECT_TRUE(monitor(kAgent));
}

TEST_F(ExitMonitoringTest, AProcessThatComesWhileItIsWaitedForIsWatched) {
  submit(kAgent, 5);
  jobs_.endProcess(kAgent);
  const Instant before = loop_.now();
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_EQ(loop_.now() - before, 6s);
  EXPECT_TRUE(isMonitored(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 1u);
}

TEST_F(ExitMonitoringTest, AProcessThatComesAfterTheSixthLookIsTooLate) {
  submit(kAgent, 11);
  jobs_.endProcess(kAgent);
  EXPECT_FALSE(monitor(kAgent));
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 0u);
}

TEST_F(ExitMonitoringTest, ALabelOutsideTheCatalogueIsNeverWatchedThoughItsJobRuns) {
  Dictionary job =
      *ORBServiceManager::jobInfoWithLabel(kAgent, manager().serviceInfo()).dictionary();
  job.set("Label", "com.example.foreign");
  EXPECT_TRUE(jobs_.SMJobSubmit(kSMDomainSystemLaunchd, job, nullptr));
  EXPECT_FALSE(monitor("com.example.foreign"));
  EXPECT_EQ(exitWatcher_.watchCount(), 0u);
  EXPECT_FALSE(manager().monitoredProcessesInfo().contains("com.example.foreign"));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ExitMonitoringTest, MonitoringTwiceArmsOneWatch) {
  submit(kAgent);
  const auto client = registerClient();
  takeLog();
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 1u);
  EXPECT_EQ(client->notices.size(), 1u);
  EXPECT_THAT(takeLog(), ElementsAre("7 The job com.example.agent already being monitored"));
}

TEST_F(ExitMonitoringTest, AWatchThatCannotBeArmedCountsAsSuccessAndNothingIsArmed) {
  submit(kAgent);
  const auto client = registerClient();
  takeLog();
  exitWatcher_.setWatchLimit(0);
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_FALSE(isMonitored(kAgent));
  EXPECT_THAT(client->notices, IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ExitMonitoringTest, AnExitIsReportedToldAndEvaluatedInThatOrder) {
  manager().setOperatingMode(ORBOperatingModeWaitingForPrimaryService);  // Evaluates nothing.
  useHealth();
  submit(kAgent, 3600);
  const auto client = registerClient();
  monitor(kAgent);
  const int first = process(kAgent);
  client->notices.clear();
  takeLog();
  client->onNotice = [&] {
    EXPECT_THAT(takeReports(), ElementsAre("forced stop com.example.agent"));
    EXPECT_TRUE(isMonitored(kAgent));
  };
  kill(kAgent);
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 0)));
  EXPECT_FALSE(isMonitored(kAgent));
  EXPECT_THAT(
      takeLog(),
      ElementsAre(stringWithFormat("7 com.example.agent with PID [%d] was terminated", first),
                  "7 Handling Process terminiation callback", "7 Removing job: com.example.agent",
                  "7 Respawning job: com.example.agent", "7 Evaluating the system configuration"));
  EXPECT_THAT(jobs_.labels(), ElementsAre(kAgent));  // Nothing was removed.
}

TEST_F(ExitMonitoringTest, AnExitMakesTheEvaluationWatchTheNewProcess) {
  submit(kPrimary);
  submit(kAgent);
  const auto client = registerClient();
  monitor(kPrimary);
  monitor(kAgent);
  const int first = process(kAgent);
  client->notices.clear();
  kill(kAgent);
  const int second = process(kAgent);
  EXPECT_NE(second, first);
  EXPECT_TRUE(isMonitored(kAgent));
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 0), notice(kAgent, 1, second),
                                           notice(kHelper, 1, process(kHelper))));
}

TEST_F(ExitMonitoringTest, AnExitThatTheLoopHasNotHeardOfYetIsReportedWithItsNextTurn) {
  manager().setOperatingMode(ORBOperatingModeInstaller);
  submit(kAgent, 3600);
  const auto client = registerClient();
  const int first = process(kAgent);
  monitor(kAgent);
  exitWatcher_.setWatchLimit(0);
  jobs_.endProcess(kAgent);  // Nobody has run the loop since.
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, first)));
  loop_.runReady();
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, first), notice(kAgent, 0)));
}

TEST_F(ExitMonitoringTest, AProcessThatEndsBetweenTheLookAndTheWatchIsReportedOnceAndReplaced) {
  CountedJobs jobs(jobs_);
  manager_.emplace(platform(jobs));
  use(catalogue());
  submit(kPrimary);
  submit(kAgent);
  monitor(kPrimary);
  const auto client = registerClient();
  const int first = process(kAgent);
  jobs.onCopied = [&] { jobs_.endProcess(kAgent); };
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, first)));
  loop_.runReady();
  const int second = process(kAgent);
  EXPECT_NE(second, first);
  EXPECT_THAT(client->notices,
              ElementsAre(notice(kAgent, 1, first), notice(kAgent, 0), notice(kAgent, 1, second),
                          notice(kHelper, 1, process(kHelper))));
  EXPECT_EQ(exitWatcher_.watchCount(), 3u);
  manager_.reset();
}

// The process goes on and its watch with it, though neither is marked any more.
TEST_F(ExitMonitoringTest, AServiceThatCouldNotBeStoppedHasOneWatch) {
  submit(kPrimary);
  submit(kAgent);
  submit(kHelper);
  for (const char* label : {kPrimary, kAgent, kHelper}) monitor(label);
  jobs_.setReachable(false);
  EXPECT_FALSE(manager().enforceShutdownForService(kAgent));
  EXPECT_FALSE(isMonitored(kAgent));
  jobs_.setReachable(true);
  const auto client = registerClient();
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_TRUE(isMonitored(kAgent));
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, process(kAgent))));
  EXPECT_EQ(exitWatcher_.watchCount(), 3u);
  for (int exit = 0; exit < 2; ++exit) {
    client->notices.clear();
    kill(kAgent);
    EXPECT_THAT(client->notices,
                ElementsAre(notice(kAgent, 0), notice(kAgent, 1, process(kAgent))));
    EXPECT_EQ(exitWatcher_.watchCount(), 3u);
  }
}

TEST_F(ExitMonitoringTest, AHundredExitsAreEachSeenOnceWithTheNewProcessAfterwards) {
  submit(kPrimary);
  submit(kAgent);
  submit(kHelper);
  for (const char* label : {kPrimary, kAgent, kHelper}) monitor(label);
  const auto client = registerClient();
  for (int exit = 0; exit < 100; ++exit) {
    client->notices.clear();
    kill(kAgent);
    ASSERT_THAT(client->notices,
                ElementsAre(notice(kAgent, 0), notice(kAgent, 1, process(kAgent))));
  }
  EXPECT_EQ(exitWatcher_.watchCount(), 3u);
}

TEST_F(ExitMonitoringTest, ServicesKilledAtTheSameInstantAreAllBackAndWatched) {
  Dictionary services{{kPrimary, entry("configd")}};
  std::vector<std::string> labels{kPrimary};
  for (int number = 0; number < 20; ++number) {
    labels.push_back("com.example.worker" + std::to_string(number));
    services.set(labels.back(), entry("worker" + std::to_string(number)));
  }
  use(catalogue(services));
  manager().evaluateSystemConfiguration();
  const auto client = registerClient();
  std::map<std::string, int> before;
  for (const auto& label : labels) before[label] = process(label.c_str());
  client->onNotice = [&] {  // What is told runs.
    const auto pid = client->notices.back()["PID"].integer();
    EXPECT_TRUE(!pid || exitWatcher_.isKnown(static_cast<int>(*pid)));
  };
  for (const auto& label : labels) jobs_.endProcess(label);
  loop_.runReady();
  EXPECT_EQ(client->notices.size(), 2 * labels.size());
  for (const auto& label : labels) {
    EXPECT_NE(process(label.c_str()), before[label]);
    EXPECT_TRUE(isMonitored(label.c_str())) << label;
    EXPECT_THAT(client->notices, testing::Contains(notice(label.c_str(), 0)));
    EXPECT_THAT(client->notices,
                testing::Contains(notice(label.c_str(), 1, process(label.c_str()))));
  }
  EXPECT_EQ(exitWatcher_.watchCount(), labels.size());
}

TEST_F(ExitMonitoringTest, NoWatchOutlivesTheDaemon) {
  submit(kAgent);
  monitor(kAgent);
  manager_.reset();
  EXPECT_EQ(exitWatcher_.watchCount(), 0u);
  kill(kAgent);
}

}  // namespace
