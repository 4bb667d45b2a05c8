#include <chrono>
#include <functional>

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
    return answerTo<bool>([&](ExitMonitor::Done done) {
      manager().monitorJobWithIdentifier(label, false, std::move(done));
    });
  }
  bool isMonitored(const char* label) { return manager().isServiceBeingTrackedForRespawn(label); }
};

TEST_F(ExitMonitoringTest, AnExitIsReportedNotifiedAndEvaluatedInOrder) {
  useHealth();
  enterMode(ORBOperatingModeWaitingForPrimaryService);  // Evaluates nothing.
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

TEST_F(ExitMonitoringTest, APendingExitIsReportedInTheLoopsNextTurn) {
  enterMode(ORBOperatingModeInstaller);
  submit(kAgent, 3600);
  const auto client = registerClient();
  const int first = process(kAgent);
  monitor(kAgent);
  exitWatcher_.setWatchLimit(0);
  jobs_.endProcess(kAgent);  // The loop has not run since.
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, first)));
  loop_.runReady();
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, first), notice(kAgent, 0)));
}

TEST_F(ExitMonitoringTest, AnExitBeforeTheWatchIsReportedOnce) {
  submit(kPrimary);
  submit(kAgent);
  monitor(kPrimary);
  const auto client = registerClient();
  const int first = process(kAgent);
  jobs_.setOnCopied([this] { jobs_.endProcess(kAgent); });
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_THAT(client->notices, ElementsAre(notice(kAgent, 1, first)));
  loop_.runReady();
  const int second = process(kAgent);
  EXPECT_NE(second, first);
  EXPECT_THAT(client->notices,
              ElementsAre(notice(kAgent, 1, first), notice(kAgent, 0), notice(kAgent, 1, second),
                          notice(kHelper, 1, process(kHelper))));
  EXPECT_EQ(exitWatcher_.watchCount(), 3u);
}

// The process still runs and is still watched, although its record says otherwise.
TEST_F(ExitMonitoringTest, AFailedStopLeavesOneWatch) {
  submit(kPrimary);
  submit(kAgent);
  submit(kHelper);
  for (const char* label : {kPrimary, kAgent, kHelper}) monitor(label);
  jobs_.setReachable(false);
  EXPECT_FALSE(stop(kAgent));
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

TEST_F(ExitMonitoringTest, EachOfAHundredExitsIsReportedOnce) {
  submit(kPrimary);
  submit(kAgent);
  submit(kHelper);
  for (const char* label : {kPrimary, kAgent, kHelper}) monitor(label);
  const auto client = registerClient();
  for (int exit = 0; exit < 100; ++exit) {
    loop_.advanceBy(1s);  // After so long a run it restarts at once.
    client->notices.clear();
    kill(kAgent);
    ASSERT_THAT(client->notices,
                ElementsAre(notice(kAgent, 0), notice(kAgent, 1, process(kAgent))));
  }
  EXPECT_EQ(exitWatcher_.watchCount(), 3u);
}

TEST_F(ExitMonitoringTest, SimultaneouslyKilledServicesAreAllWatchedAgain) {
  Dictionary services{{kPrimary, entry("configd")}};
  std::vector<std::string> labels{kPrimary};
  for (int number = 0; number < 20; ++number) {
    labels.push_back("com.example.worker" + std::to_string(number));
    services.set(labels.back(), entry("worker" + std::to_string(number)));
  }
  use(catalogue(services));
  evaluate();
  const auto client = registerClient();
  std::map<std::string, int> before;
  for (const auto& label : labels) before[label] = process(label.c_str());
  client->onNotice = [&] {  // The process in the notice runs.
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
