#include "ServiceManager/ServiceManager/ORBServiceManagerHealthInfo.h"

#include "ServiceManager/ServiceManager/ServiceManager_fixture.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

constexpr char kEvaluatingServices[] =
    "7 Evaluating services (status: 0 - Unready, 1 - Running, 2 - Stopped, 3 - Updating):";

class HealthInfoTest : public ServiceManagerFixture {
 protected:
  // A service of that status.
  void put(const char* label, std::int64_t status) {
    switch (static_cast<HealthStatus>(status)) {
      case HealthStatus::kUnready:
        return health_->reportUnreadyStateForService(label);
      case HealthStatus::kRunning:
        return health_->reportStartForService(label);
      case HealthStatus::kStopped:
        return health_->reportStopForService(label);
      case HealthStatus::kUpdating:
        return health_->reportIntallerEventStartedForService(label);
    }
  }
  void crash(const char* label, int times) {
    for (int i = 0; i < times; ++i) {
      health_->reportStartForService(label);
      health_->reportForcedStopForService(label);
    }
  }
  Value stateOf(const char* label) { return health_->serviceStates()[label]; }
  Value crashesOf(const char* label) { return health_->crashCounters()[label]; }

  std::unique_ptr<ORBServiceManagerHealthInfo> health_ = makeHealthInfo();
};

// At first.

TEST_F(HealthInfoTest, AnEmptyRecordIsNotReadyToReport) {
  EXPECT_TRUE(health_->serviceStates().empty());
  EXPECT_TRUE(health_->crashCounters().empty());
  EXPECT_FALSE(health_->isReadyToReport());
  EXPECT_EQ(health_->crashLimit(), 3);
  EXPECT_THAT(health_->serviceNamesToReport(), IsEmpty());
  EXPECT_THAT(health_->problemServices(), IsEmpty());
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary()));
  EXPECT_EQ(health_->taskQueue()->label(), "com.vantor.servicemanager.servicemanagerhealthqueue");
}

TEST_F(HealthInfoTest, ARecordIsTakenAfterTheReportsBefore) {
  health_->reportStartForService(kAgent);
  std::vector<Value> taken;
  const auto take = [&](Value record) { taken.push_back(record[kHealthServices][kAgent]); };
  health_->takeHealthRecord(take);
  health_->reportForcedStopForService(kAgent);
  health_->takeHealthRecord(take);
  queues_.runPending();
  ASSERT_EQ(taken.size(), 2u);
  EXPECT_EQ(taken[0][kHealthCrashes], Value(0));
  EXPECT_EQ(taken[1][kHealthCrashes], Value(1));
}

// Each report.

TEST_F(HealthInfoTest, MonitoredServicesAreUnreadyAndTheRecordIsReady) {
  put(kHelper, kRunning);
  put(kPrimary, kRunning);
  takeLog();
  health_->setMonitoredServices({kPrimary, kAgent});
  EXPECT_EQ(health_->serviceStates(),
            (Dictionary{{kHelper, kRunning}, {kPrimary, kUnready}, {kAgent, kUnready}}));
  EXPECT_TRUE(health_->isReadyToReport());
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(HealthInfoTest, NoServicesAtAllMakeTheRecordReadyToo) {
  health_->setMonitoredServices({});
  EXPECT_TRUE(health_->serviceStates().empty());
  EXPECT_TRUE(health_->isReadyToReport());
}

TEST_F(HealthInfoTest, AnUnmonitoredServiceHasNoStatus) {
  put(kAgent, kRunning);
  takeLog();
  health_->stopMonitoringForService(kAgent);
  health_->stopMonitoringForService(kHelper);
  EXPECT_TRUE(health_->serviceStates().empty());
  EXPECT_THAT(takeLog(), IsEmpty());
}

struct Report {
  const char* name;
  void (ORBServiceManagerHealthInfo::*report)(std::string_view);
  std::int64_t status;
  const char* line;
};

class ReportTest : public HealthInfoTest, public testing::WithParamInterface<Report> {};

TEST_P(ReportTest, SetsTheStatusWhateverItWasAndLogsIt) {
  const Report& row = GetParam();
  ((*health_).*row.report)(kAgent);
  EXPECT_EQ(stateOf(kAgent), Value(row.status)) << "of an unknown label";
  for (const std::int64_t before : {kUnready, kRunning, kStopped, kUpdating}) {
    put(kAgent, before);
    health_->serviceStates();  // Wait for the report.
    takeLog();
    ((*health_).*row.report)(kAgent);
    EXPECT_EQ(stateOf(kAgent), Value(row.status)) << "from " << before;
    EXPECT_THAT(takeLog(), ElementsAre(std::string("7 ") + row.line + kAgent));
  }
  EXPECT_TRUE(health_->crashCounters().empty());
}

INSTANTIATE_TEST_SUITE_P(
    Each, ReportTest,
    testing::Values(Report{"Unready", &ORBServiceManagerHealthInfo::reportUnreadyStateForService,
                           kUnready, "Reported unready state for service: "},
                    Report{"Start", &ORBServiceManagerHealthInfo::reportStartForService, kRunning,
                           "Reported running state for service: "},
                    Report{"Stop", &ORBServiceManagerHealthInfo::reportStopForService, kStopped,
                           "Reported stop for service: "},
                    Report{"InstallerEvent",
                           &ORBServiceManagerHealthInfo::reportIntallerEventStartedForService,
                           kUpdating, "Reported installer event for service: "}),
    [](const auto& report) { return std::string(report.param.name); });

class ForcedStopTest : public HealthInfoTest, public testing::WithParamInterface<std::int64_t> {};

TEST_P(ForcedStopTest, CountsUnlessTheServiceWasToldToEnd) {
  const std::int64_t before = GetParam();
  put(kAgent, before);
  health_->serviceStates();
  takeLog();
  health_->reportForcedStopForService(kAgent);
  const bool counts = before == kUnready || before == kRunning;
  EXPECT_EQ(stateOf(kAgent), Value(counts ? kUnready : before));
  EXPECT_EQ(crashesOf(kAgent), counts ? Value(1) : Value());
  EXPECT_THAT(takeLog(), ElementsAre("7 Reported forced stop for service: com.example.agent"));
}

INSTANTIATE_TEST_SUITE_P(FromStatus, ForcedStopTest,
                         testing::Values(kUnready, kRunning, kStopped, kUpdating));

TEST_F(HealthInfoTest, AForcedStopOfAnUnknownServiceCounts) {
  health_->reportForcedStopForService(kAgent);
  EXPECT_EQ(stateOf(kAgent), Value(kUnready));
  EXPECT_EQ(crashesOf(kAgent), Value(1));
}

TEST_F(HealthInfoTest, AHundredForcedStopsAreCountedExactly) {
  for (int i = 1; i <= 100; ++i) {
    crash(kAgent, 1);
    if (i % 2 == 0) crash(kHelper, 1);
    ASSERT_EQ(crashesOf(kAgent), Value(i));
  }
  EXPECT_EQ(crashesOf(kHelper), Value(50));
}

TEST_F(HealthInfoTest, AnInstallerEventEndsForUpdatingServices) {
  put(kPrimary, kUnready);
  put(kAgent, kStopped);
  put(kHelper, kUpdating);
  EXPECT_THAT(health_->problemServices(), ElementsAre(kPrimary));
  EXPECT_FALSE(health_->isReadyToReport());
  takeLog();
  health_->reportInstallerEventFinished();
  EXPECT_EQ(health_->serviceStates(),
            (Dictionary{{kPrimary, kUnready}, {kAgent, kStopped}, {kHelper, kRunning}}));
  EXPECT_TRUE(health_->isReadyToReport());
  EXPECT_THAT(takeLog(), ElementsAre("7 Reported installer event finish"));
}

// The queue.

TEST_F(HealthInfoTest, ReportsReturnAtOnceAndQueriesSeeThemAll) {
  health_->setMonitoredServices({kAgent});
  EXPECT_FALSE(health_->isReadyToReport());  // It is read without the queue.
  health_->reportForcedStopForService(kAgent);
  health_->reportStartForService(kAgent);
  health_->reportUnreadyStateForService(kHelper);
  EXPECT_TRUE(logSink_.messages().empty());
  EXPECT_THAT(health_->problemServices(), ElementsAre(kHelper));
  EXPECT_TRUE(health_->isReadyToReport());
  EXPECT_THAT(takeLog(), ElementsAre("7 Reported forced stop for service: com.example.agent",
                                     "7 Reported running state for service: com.example.agent",
                                     "7 Reported unready state for service: com.example.helper"));
}

TEST_F(HealthInfoTest, TheInstallersEventIsLoggedBeforeItIsQueued) {
  health_->reportStartForService(kAgent);
  health_->reportIntallerEventStartedForService(kHelper);
  EXPECT_THAT(takeLog(), ElementsAre("7 Reported installer event for service: com.example.helper",
                                     "7 Reported running state for service: com.example.agent"));
}

TEST_F(HealthInfoTest, ReadinessIsSetAfterEarlierReports) {
  health_->setMonitoredServices({});
  health_->setReadyToReport(false);
  loop_.runReady();
  EXPECT_FALSE(health_->isReadyToReport());
}

TEST_F(HealthInfoTest, QueuedReportsAreDoneBeforeTheRecordEnds) {
  health_->reportStartForService(kAgent);
  health_.reset();
  EXPECT_THAT(takeLog(), ElementsAre("7 Reported running state for service: com.example.agent"));
  loop_.runReady();
}

// The summary.

TEST_F(HealthInfoTest, ASummaryHasUnreadyAndRunningServicesAlone) {
  put("a", kUnready);
  put("b", kRunning);
  put("c", kStopped);
  put("d", kUpdating);
  health_->serviceStates();
  takeLog();
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{"a", 1}, {"b", 0}}));
  EXPECT_THAT(takeLog(),
              ElementsAre(kEvaluatingServices + std::string("\na: 0\nb: 1\nc: 2\nd: 3")));
}

TEST_F(HealthInfoTest, AnEmptySummaryIsLoggedToo) {
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary()));
  EXPECT_THAT(takeLog(), ElementsAre(kEvaluatingServices));
}

TEST_F(HealthInfoTest, ThreeForcedStopsMakeARunningServiceUnhealthyOnce) {
  crash(kAgent, 3);
  put(kAgent, kRunning);
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{kAgent, 1}}));
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{kAgent, 0}}));
}

TEST_F(HealthInfoTest, TheCrashLimitIsReachedAtThree) {
  for (const int crashes : {2, 3, 4}) {
    crash(kAgent, crashes);
    put(kAgent, kRunning);
    const std::int64_t expected = crashes >= 3 ? 1 : 0;
    EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{kAgent, expected}}))
        << crashes;
  }
}

TEST_F(HealthInfoTest, ASummaryClearsCountersBelowTheLimitToo) {
  crash(kAgent, 2);
  put(kAgent, kRunning);
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{kAgent, 0}}));
  crash(kAgent, 1);
  put(kAgent, kRunning);
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{kAgent, 0}}));
}

TEST_F(HealthInfoTest, AnotherCrashLimitCountsInstead) {
  health_->setCrashLimit(1);
  crash(kAgent, 1);
  put(kAgent, kRunning);
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{kAgent, 1}}));
}

TEST_F(HealthInfoTest, AForcedStopAfterAStopCountsNothing) {
  put(kAgent, kStopped);
  for (int i = 0; i < 3; ++i) health_->reportForcedStopForService(kAgent);
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary()));
  EXPECT_EQ(countInLog("Reported forced stop for service"), 3u);
}

TEST_F(HealthInfoTest, ASummaryOmitsUpdatingServicesBelowTheCrashLimit) {
  for (const int crashes : {2, 3}) {
    crash(kAgent, crashes);
    put(kAgent, kUpdating);
    EXPECT_EQ(health_->getHealthStateForServices(),
              Value(crashes < 3 ? Dictionary() : Dictionary{{kAgent, 1}}));
    health_->reportInstallerEventFinished();
    EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{kAgent, 0}}));
  }
}

TEST_F(HealthInfoTest, AServiceIsListedUnderItsName) {
  health_->setServiceNamesToReport({{kAgent, "/opt/app/agent"}});
  put(kAgent, kRunning);
  put(kHelper, kRunning);
  takeLog();
  EXPECT_EQ(health_->getHealthStateForServices(),
            Value(Dictionary{{"/opt/app/agent", 0}, {kHelper, 0}}));
  EXPECT_THAT(takeLog(),  // The log has its label.
              testing::Contains(testing::HasSubstr("\ncom.example.agent: 1")));
}

TEST_F(HealthInfoTest, TheLastOfTwoServicesWithOneNameIsListed) {
  health_->setServiceNamesToReport({{kAgent, "/opt/app/same"}, {kHelper, "/opt/app/same"}});
  put(kAgent, kRunning);
  put(kHelper, kUnready);
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{"/opt/app/same", 1}}));
}

TEST_F(HealthInfoTest, ASummaryOmitsAnUnmonitoredService) {
  crash(kAgent, 3);
  health_->stopMonitoringForService(kAgent);
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary()));
  put(kAgent, kRunning);
  EXPECT_EQ(health_->getHealthStateForServices(), Value(Dictionary{{kAgent, 0}}));
}

// The operator's view.

TEST_F(HealthInfoTest, ReadingTheRecordClearsNoCounter) {
  health_->setServiceNamesToReport({{kAgent, "agent"}});
  crash(kAgent, 3);
  put(kAgent, kRunning);
  put(kHelper, kStopped);
  crash("gone", 1);
  health_->stopMonitoringForService("gone");
  const Value expected = Dictionary{
      {kHealthReadyToReport, false},
      {kHealthCrashLimit, 3},
      {kHealthServices,
       Dictionary{
           {kAgent, Dictionary{{kHealthName, "agent"},
                               {kHealthStatus, 1},
                               {kHealthCrashes, 3},
                               {kHealthReported, 1}}},
           {kHelper, Dictionary{{kHealthName, kHelper}, {kHealthStatus, 2}, {kHealthCrashes, 0}}},
           {"gone", Dictionary{{kHealthName, "gone"}, {kHealthCrashes, 1}}}}}};
  EXPECT_EQ(health_->healthRecord(), expected);
  takeLog();
  EXPECT_EQ(health_->healthRecord(), expected);
  EXPECT_THAT(takeLog(), IsEmpty());
}

TEST_F(HealthInfoTest, TheRecordFollowsEachChange) {
  const auto agent = [this] { return health_->healthRecord()[kHealthServices][kAgent]; };
  EXPECT_EQ(agent(), Value());
  put(kAgent, kRunning);
  EXPECT_EQ(agent()[kHealthReported], Value(kHealthy));
  crash(kAgent, 1);
  EXPECT_EQ(agent()[kHealthStatus], Value(kUnready));
  EXPECT_EQ(agent()[kHealthCrashes], Value(1));
  put(kAgent, kRunning);
  health_->setCrashLimit(1);
  EXPECT_EQ(agent()[kHealthReported], Value(kUnhealthy));
  health_->setServiceNamesToReport({{kAgent, "agent"}});
  EXPECT_EQ(agent()[kHealthName], Value("agent"));
  health_->getHealthStateForServices();
  EXPECT_EQ(agent()[kHealthCrashes], Value(0));
  EXPECT_EQ(agent()[kHealthReported], Value(kHealthy));
  health_->stopMonitoringForService(kAgent);
  EXPECT_EQ(agent(), Value());
}

}  // namespace
