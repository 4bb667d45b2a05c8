#include "ServiceManager/Supervision/MonitoringRecord.h"

#include <gtest/gtest.h>

namespace {

using namespace platform;

TEST(MonitoringRecord, AnInitialRecordHasNoMarks) {
  EXPECT_EQ(
      initialMonitoringRecord(),
      Value(Dictionary{
          {"Monitored", false}, {"PID", -1000}, {"kORBUserClientDidRequestShutdown", false}}));
}

TEST(MonitoringRecord, AMarkIsChangedInACopy) {
  const Value record = initialMonitoringRecord();
  const Value changed = monitoringRecordBySetting(record, kMonitoringRecordMonitored, true);
  EXPECT_EQ(changed,
            Value(Dictionary{
                {"Monitored", true}, {"PID", -1000}, {"kORBUserClientDidRequestShutdown", false}}));
  EXPECT_EQ(record, initialMonitoringRecord());
}

}  // namespace
