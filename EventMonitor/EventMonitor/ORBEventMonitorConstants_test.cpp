#include "EventMonitor/EventMonitor/ORBEventMonitorConstants.h"

#include <string_view>

#include <gtest/gtest.h>

#include "Platform/Values/Value.h"

namespace {

TEST(EventMonitorConstantsTest, TheKeysAreThoseThatReadersOfTheRecordsExpect) {
  const struct {
    std::string_view key;
    std::string_view text;
  } keys[] = {
      {kORBEventMonitorKeyForSystemVersion, "systemVersion"},
      {kORBEventMonitorKeyForCustomerId, "customerId"},
      {kORBEventMonitorKeyForMachineId, "machineId"},
      {kORBEventMonitorKeyForSerialNumber, "serialNumber"},
      {kORBEventMonitorKeyForProductVersion, "productVersion"},
      {kORBEventMonitorKeyForProductVariant, "productVariant"},
      {kORBEventMonitorEvent, "event"},
      {kORBEventMonitorKeyForTimestamp, "timestamp"},
      {kORBEventMonitorKeyForPort, "port"},
      {kORBEventMonitorKeyForIp, "ip"},
      {kORBEventMonitorKeyForUrl, "url"},
      {kORBEventMonitorKeyForUserData, "userData"},
  };
  platform::Dictionary record;
  for (const auto& [key, text] : keys) {
    EXPECT_EQ(key, text);
    record.set(key, platform::Value(true));
  }
  EXPECT_EQ(record.size(), std::size(keys)) << "a key stands for two fields";
}

}  // namespace
