#include "ServiceManager/ServiceManager/SettingsEventLimit.h"

#include <chrono>
#include <string>

#include <gtest/gtest.h>

#include "ServiceManager/ServiceManager/EvaluationTimers.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;

static_assert(SettingsEventLimit::kInterval == EvaluationTimers::kSettingsChangeDelay);

TEST(SettingsEventLimitTest, ARepeatedKeyHasOneEventInTheInterval) {
  SettingsEventLimit limit;
  const Instant now{};
  EXPECT_EQ(limit.keyOfEvent("on", now), "on");
  EXPECT_EQ(limit.keyOfEvent("on", now + SettingsEventLimit::kInterval - 1ns), std::nullopt);
  EXPECT_EQ(limit.keyOfEvent("on", now + SettingsEventLimit::kInterval), "on");
  EXPECT_EQ(limit.keyOfEvent("level", now + SettingsEventLimit::kInterval), "level");
  EXPECT_EQ(limit.keyOfEvent("on", now + SettingsEventLimit::kInterval), "on");
}

TEST(SettingsEventLimitTest, OneEventWithoutAKeyStandsForTheRest) {
  SettingsEventLimit limit;
  const Instant now{};
  for (std::size_t i = 0; i < SettingsEventLimit::kMost; ++i)
    EXPECT_EQ(limit.keyOfEvent(std::to_string(i), now), std::to_string(i));
  EXPECT_EQ(limit.keyOfEvent("another", now), "");
  EXPECT_EQ(limit.keyOfEvent("a third", now), std::nullopt);
  EXPECT_EQ(limit.keyOfEvent("a third", now + SettingsEventLimit::kInterval), "a third");
}

}  // namespace
