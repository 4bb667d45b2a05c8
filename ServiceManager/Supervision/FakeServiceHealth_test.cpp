#include "ServiceManager/Supervision/FakeServiceHealth_fixture.h"
#include "ServiceManager/Supervision/ServiceHealth_contract.h"

namespace {

using namespace platform;

struct FakeHealthRecord final : HealthRecordUnderTest {
  ServiceHealth& health() override { return fake; }

  std::vector<std::string> reports;
  FakeServiceHealth fake{reports};
};

std::unique_ptr<HealthRecordUnderTest> makeFakeHealthRecord() {
  return std::make_unique<FakeHealthRecord>();
}

INSTANTIATE_TEST_SUITE_P(Fake, ServiceHealthContract, testing::Values(&makeFakeHealthRecord));

TEST(FakeServiceHealthTest, NotesEachReportInItsOrder) {
  FakeHealthRecord record;
  record.fake.setMonitoredServices({"b", "a"});
  record.fake.setServiceNamesToReport({{"a", "A"}});
  record.fake.setReadyToReport(false);
  record.fake.reportUnreadyStateForService("a");
  record.fake.reportStartForService("a");
  record.fake.reportStopForService("a");
  record.fake.reportForcedStopForService("a");
  record.fake.reportIntallerEventStartedForService("a");
  record.fake.reportInstallerEventFinished();
  record.fake.stopMonitoringForService("a");
  record.fake.setReadyToReport(true);
  EXPECT_THAT(
      record.reports,
      testing::ElementsAre("monitored b", "monitored a", "name A a", "not ready", "unready a",
                           "start a", "stop a", "forced stop a", "installer event a",
                           "installer event finished", "stop monitoring a", "ready"));
}

}  // namespace
