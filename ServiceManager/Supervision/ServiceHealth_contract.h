#pragma once

// The behaviour that every implementation of ServiceHealth has. A test program derives a record
// from HealthRecordUnderTest and instantiates the suite with a function that makes it:
//   INSTANTIATE_TEST_SUITE_P(Fake, ServiceHealthContract, testing::Values(&makeFakeHealthRecord));

#include <memory>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "ServiceManager/Supervision/ServiceHealth.h"

// A record that knows of no service yet, with everything that it needs.
class HealthRecordUnderTest {
 public:
  virtual ~HealthRecordUnderTest() = default;
  virtual ServiceHealth& health() = 0;
};

class ServiceHealthContract
    : public testing::TestWithParam<std::unique_ptr<HealthRecordUnderTest> (*)()> {
 protected:
  static constexpr char kAgent[] = "com.example.agent";
  static constexpr char kHelper[] = "com.example.helper";

  void expectProblem() { EXPECT_THAT(health_.problemServices(), testing::ElementsAre(kAgent)); }
  void expectNoProblem() { EXPECT_THAT(health_.problemServices(), testing::IsEmpty()); }

  const std::unique_ptr<HealthRecordUnderTest> record_ = GetParam()();
  ServiceHealth& health_ = record_->health();
};

TEST_P(ServiceHealthContract, AtFirstNoServiceIsAProblem) { expectNoProblem(); }

TEST_P(ServiceHealthContract, AMonitoredServiceIsAProblemUntilItStarts) {
  health_.setMonitoredServices({kHelper, kAgent});
  EXPECT_THAT(health_.problemServices(), testing::ElementsAre(kAgent, kHelper));
  health_.reportStartForService(kHelper);
  expectProblem();
  health_.reportStartForService(kAgent);
  expectNoProblem();
}

TEST_P(ServiceHealthContract, MonitoringAServiceThatRunsMakesItAProblem) {
  health_.reportStartForService(kAgent);
  health_.setMonitoredServices({kAgent});
  expectProblem();
}

TEST_P(ServiceHealthContract, AServiceThatIsUnreadyIsAProblem) {
  health_.reportUnreadyStateForService(kAgent);
  expectProblem();
  health_.reportStartForService(kAgent);
  health_.reportUnreadyStateForService(kAgent);
  expectProblem();
}

TEST_P(ServiceHealthContract, AServiceThatWasStoppedIsNoProblem) {
  health_.reportUnreadyStateForService(kAgent);
  health_.reportStopForService(kAgent);
  expectNoProblem();
}

TEST_P(ServiceHealthContract, AServiceThatIsUpdatedIsNoProblem) {
  health_.reportUnreadyStateForService(kAgent);
  health_.reportIntallerEventStartedForService(kAgent);
  expectNoProblem();
  health_.reportInstallerEventFinished();
  expectNoProblem();
}

TEST_P(ServiceHealthContract, TheEndOfAnUpdateAffectsNoOtherService) {
  health_.reportUnreadyStateForService(kAgent);
  health_.reportIntallerEventStartedForService(kHelper);
  health_.reportInstallerEventFinished();
  expectProblem();
}

TEST_P(ServiceHealthContract, AServiceIsAProblemUntilItsMonitoringStops) {
  health_.setMonitoredServices({kAgent});
  health_.stopMonitoringForService(kHelper);
  expectProblem();
  health_.stopMonitoringForService(kAgent);
  expectNoProblem();
}

TEST_P(ServiceHealthContract, NeitherNamesNorReadinessChangeAProblem) {
  health_.reportUnreadyStateForService(kAgent);
  health_.setServiceNamesToReport({{kAgent, "Agent"}, {kHelper, "Helper"}});
  health_.setReadyToReport(true);
  expectProblem();
  health_.setReadyToReport(false);
  expectProblem();
}

// A process that ended by itself.

TEST_P(ServiceHealthContract, AForcedStopMakesAServiceAProblem) {
  health_.reportForcedStopForService(kAgent);
  expectProblem();
  health_.reportStartForService(kAgent);
  expectNoProblem();
  health_.reportForcedStopForService(kAgent);
  expectProblem();
  health_.reportForcedStopForService(kAgent);
  expectProblem();
}

TEST_P(ServiceHealthContract, AForcedStopAfterTheUpdateIsAProblem) {
  health_.reportIntallerEventStartedForService(kAgent);
  health_.reportInstallerEventFinished();
  health_.reportForcedStopForService(kAgent);
  expectProblem();
}

TEST_P(ServiceHealthContract, AForcedStopOfAStoppedServiceIsNoProblem) {
  health_.reportStopForService(kAgent);
  health_.reportForcedStopForService(kAgent);
  expectNoProblem();
  health_.reportIntallerEventStartedForService(kAgent);
  health_.reportForcedStopForService(kAgent);
  expectNoProblem();
}
