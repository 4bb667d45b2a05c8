#include "ServiceManager/Supervision/MonitoringRecords.h"

#include <gtest/gtest.h>

#include "ServiceManager/Supervision/MonitoringRecord.h"

namespace {

using namespace platform;

constexpr char kAgent[] = "com.example.agent";
constexpr char kHelper[] = "com.example.helper";

class MonitoringRecordsTest : public testing::Test {
 protected:
  MonitoringRecordsTest() {
    records_.reset(Dictionary{{kAgent, Dictionary()}, {kHelper, Dictionary()}});
  }
  MonitoringRecords records_;
};

TEST_F(MonitoringRecordsTest, EachServiceHasARecordWithoutMarks) {
  EXPECT_EQ(records_.monitoredProcessesInfo(), (Dictionary{{kAgent, initialMonitoringRecord()},
                                                           {kHelper, initialMonitoringRecord()}}));
}

TEST_F(MonitoringRecordsTest, AResetForgetsAllMarks) {
  records_.trackServiceForRespawn(kAgent, true);
  records_.reset(Dictionary{{kAgent, Dictionary()}});
  EXPECT_FALSE(records_.isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_FALSE(records_.contains(kHelper));
  records_.reset({});
  EXPECT_TRUE(records_.monitoredProcessesInfo().empty());
}

TEST_F(MonitoringRecordsTest, AMarkIsSetInTheLabelsRecordAlone) {
  records_.trackServiceForRespawn(kAgent, true);
  records_.trackServiceForUserClientShutdownRequest(kHelper, true);
  EXPECT_TRUE(records_.isServiceBeingTrackedForRespawn(kAgent));
  EXPECT_FALSE(records_.isServiceBeingTrackedForUserClientShutdownRequest(kAgent));
  EXPECT_FALSE(records_.isServiceBeingTrackedForRespawn(kHelper));
  EXPECT_TRUE(records_.isServiceBeingTrackedForUserClientShutdownRequest(kHelper));
  records_.trackServiceForRespawn(kAgent, false);
  EXPECT_FALSE(records_.isServiceBeingTrackedForRespawn(kAgent));
}

TEST_F(MonitoringRecordsTest, ALabelWithoutARecordGetsNone) {
  records_.trackServiceForRespawn("com.example.unknown", true);
  records_.trackServiceForUserClientShutdownRequest(std::nullopt, true);
  EXPECT_EQ(records_.monitoredProcessesInfo().size(), 2u);
  EXPECT_FALSE(records_.isServiceBeingTrackedForRespawn("com.example.unknown"));
  EXPECT_FALSE(records_.isServiceBeingTrackedForUserClientShutdownRequest(std::nullopt));
}

}  // namespace
