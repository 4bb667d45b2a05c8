#include "ServiceManager/Supervision/ExitMonitor.h"

#include <chrono>

#include "ServiceManager/Supervision/MonitoringRecord.h"
#include "ServiceManager/Supervision/Supervision_fixture.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::ElementsAre;
using testing::IsEmpty;

class ExitMonitorTest : public SupervisionFixture {
 protected:
  void submit(const char* label, int throttle = 0) {
    Dictionary job = *catalogue_.jobInfo(label).dictionary();
    job.set("ThrottleInterval", throttle);
    EXPECT_TRUE(jobs_.SMJobSubmit(kSMDomainSystemLaunchd, job, nullptr));
  }
  bool monitor(Label label, bool retryOnFailure = false) {
    return answerTo<bool>([&](ExitMonitor::Done done) {
      exits_.monitorJobWithIdentifier(label, retryOnFailure, std::move(done));
    });
  }
  bool isMonitored(const char* label) { return records_.isServiceBeingTrackedForRespawn(label); }
};

TEST_F(ExitMonitorTest, ARunningServiceIsWatchedAndReported) {
  submit(kAgent);
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_TRUE(isMonitored(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 1u);
  EXPECT_THAT(watched_, ElementsAre(Event{kAgent, process(kAgent)}));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ExitMonitorTest, OnlyTheMonitoredMarkOfTheRecordChanges) {
  submit(kAgent);
  monitor(kAgent);
  EXPECT_EQ(records_.monitoredProcessesInfo()[kAgent],
            Value(Dictionary{
                {"Monitored", true}, {"PID", -1000}, {"kORBUserClientDidRequestShutdown", false}}));
  EXPECT_EQ(records_.monitoredProcessesInfo()[kHelper], initialMonitoringRecord());
}

TEST_F(ExitMonitorTest, ANilOrBlankLabelIsRefused) {
  EXPECT_FALSE(monitor(std::nullopt));
  EXPECT_FALSE(monitor(""));
  EXPECT_FALSE(monitor(" \t\n\u2028"));
  const std::string line = "4 Cannot monitor a process with invalid job identifier";
  EXPECT_THAT(takeLog(), ElementsAre(line, line, line));
}

TEST_F(ExitMonitorTest, AJobWithoutAProcessIsCopiedSixTimes) {
  submit(kAgent, 3600);
  jobs_.endProcess(kAgent);
  // `retryOnFailure` makes no difference.
  for (const bool retry : {false, true}) {
    const Instant before = loop_.now();
    const int copies = jobs_.copies();
    EXPECT_FALSE(monitor(kAgent, retry));
    EXPECT_EQ(jobs_.copies() - copies, 6);
    EXPECT_EQ(loop_.now() - before, 12s);
    EXPECT_THAT(takeLog(), ElementsAre("4 Could not determine the PID of the requested job "
                                       "label:com.example.agent"));
  }
}

TEST_F(ExitMonitorTest, AJobIsCopiedOnceWithoutTheHostsAnswer) {
  submit(kAgent);
  jobs_.setReachable(false);
  const Instant before = loop_.now();
  EXPECT_FALSE(monitor(kAgent, true));
  EXPECT_EQ(jobs_.copies(), 1);
  EXPECT_EQ(loop_.now() - before, 5s);  // The time-out of the copy itself.
  EXPECT_THAT(takeLog(), ElementsAre("4 Could not determine the PID of the requested job "
                                     "label:com.example.agent"));
  jobs_.setReachable(true);
  EXPECT_TRUE(monitor(kAgent));
}

TEST_F(ExitMonitorTest, AProcessThatStartsDuringTheWaitIsWatched) {
  submit(kAgent, 5);
  jobs_.endProcess(kAgent);
  const Instant before = loop_.now();
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_EQ(loop_.now() - before, 6s);
  EXPECT_TRUE(isMonitored(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 1u);
}

TEST_F(ExitMonitorTest, AProcessThatStartsAfterTheWaitIsIgnored) {
  submit(kAgent, 11);
  jobs_.endProcess(kAgent);
  EXPECT_FALSE(monitor(kAgent));
  EXPECT_TRUE(isRunning(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 0u);
}

TEST_F(ExitMonitorTest, ALabelOutsideTheCatalogueIsNeverWatched) {
  Dictionary job = *catalogue_.jobInfo(kAgent).dictionary();
  job.set("Label", "com.example.foreign");
  EXPECT_TRUE(jobs_.SMJobSubmit(kSMDomainSystemLaunchd, job, nullptr));
  EXPECT_FALSE(monitor("com.example.foreign"));
  EXPECT_EQ(exitWatcher_.watchCount(), 0u);
  EXPECT_FALSE(records_.monitoredProcessesInfo().contains("com.example.foreign"));
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ExitMonitorTest, ALabelOutsideTheCatalogueIsLookedForToo) {
  const Instant before = loop_.now();
  EXPECT_FALSE(monitor("com.example.foreign"));
  EXPECT_EQ(loop_.now() - before, 12s);
  EXPECT_THAT(takeLog(), ElementsAre("4 Could not determine the PID of the requested job "
                                     "label:com.example.foreign"));
}

TEST_F(ExitMonitorTest, MonitoringTwiceArmsOneWatch) {
  submit(kAgent);
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 1u);
  EXPECT_EQ(watched_.size(), 1u);
  EXPECT_THAT(takeLog(), ElementsAre("7 The job com.example.agent already being monitored"));
}

TEST_F(ExitMonitorTest, AWatchThatCannotBeArmedCountsAsSuccess) {
  submit(kAgent);
  exitWatcher_.setWatchLimit(0);
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_FALSE(isMonitored(kAgent));
  EXPECT_THAT(watched_, IsEmpty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(ExitMonitorTest, AWatchThatCouldNotBeArmedIsArmedLater) {
  submit(kAgent);
  exitWatcher_.setWatchLimit(0);
  EXPECT_TRUE(monitor(kAgent));
  exitWatcher_.setWatchLimit(1);
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_TRUE(isMonitored(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 1u);
}

TEST_F(ExitMonitorTest, AnEndIsReportedOnceAndItsWatchRemoved) {
  submit(kAgent, 3600);
  monitor(kAgent);
  const int first = process(kAgent);
  kill(kAgent);
  EXPECT_THAT(ended_, ElementsAre(Event{kAgent, first}));
  EXPECT_EQ(exitWatcher_.watchCount(), 0u);
  loop_.runReady();
  EXPECT_EQ(ended_.size(), 1u);
}

TEST_F(ExitMonitorTest, AClearedMarkAddsNoSecondWatch) {
  submit(kAgent);
  monitor(kAgent);
  records_.trackServiceForRespawn(kAgent, false);  // As by a stop that failed.
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_TRUE(isMonitored(kAgent));
  EXPECT_EQ(exitWatcher_.watchCount(), 1u);
  EXPECT_EQ(watched_.size(), 2u);
}

TEST_F(ExitMonitorTest, AnAnswerThatIsOlderThanAnEndIsNotUsed) {
  submit(kAgent);
  monitor(kAgent);
  const int first = process(kAgent);
  bool isWatched = false;
  exits_.monitorJobWithIdentifier(kAgent, false, [&](bool watched) { isWatched = watched; });
  jobs_.endProcess(kAgent);  // The answer with the first process is under way.
  loop_.runReady();
  EXPECT_TRUE(isWatched);
  EXPECT_THAT(watched_, ElementsAre(Event{kAgent, first}, Event{kAgent, process(kAgent)}));
  EXPECT_THAT(ended_, ElementsAre(Event{kAgent, first}));
}

TEST_F(ExitMonitorTest, ASuccessorWithTheSameNumberIsWatched) {
  submit(kAgent);
  monitor(kAgent);
  const int number = process(kAgent);
  jobs_.setNextProcess(number);
  kill(kAgent);
  ASSERT_EQ(process(kAgent), number);
  records_.trackServiceForRespawn(kAgent, false);
  EXPECT_TRUE(monitor(kAgent));
  kill(kAgent);
  EXPECT_THAT(ended_, ElementsAre(Event{kAgent, number}, Event{kAgent, number}));
}

TEST_F(ExitMonitorTest, ASuccessorIsWatchedBesideAnEndingProcess) {
  submit(kAgent);
  monitor(kAgent);
  const int first = process(kAgent);
  jobs_.endProcess(kAgent);  // The loop has not reported the end yet.
  records_.trackServiceForRespawn(kAgent, false);
  const int second = process(kAgent);
  EXPECT_TRUE(monitor(kAgent));
  EXPECT_THAT(watched_, ElementsAre(Event{kAgent, first}, Event{kAgent, second}));
  loop_.runReady();
  EXPECT_THAT(ended_, ElementsAre(Event{kAgent, first}));
}

}  // namespace
