#include "Kit/SettingsServer/SettingConversions.h"

#include <cmath>
#include <cstdint>
#include <limits>

#include <gtest/gtest.h>

namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::Value;

constexpr std::int64_t kLargest = std::numeric_limits<std::int64_t>::max();
constexpr std::int64_t kSmallest = std::numeric_limits<std::int64_t>::min();

struct Row {
  Value setting;
  Value asString;
  std::int64_t asInteger;
  double asDouble;
  bool asBool;
};

TEST(SettingConversions, EachTypeIsReadAsEachOther) {
  const Row rows[] = {
      {Value(), Value(), 0, 0, false},
      {Value(true), "1", 1, 1, true},
      {Value(false), "0", 0, 0, false},
      {Value(7), "7", 7, 7, true},
      {Value(-7), "-7", -7, -7, true},
      {Value(0), "0", 0, 0, false},
      {Value(2.75), "2.75", 2, 2.75, true},
      {Value(-2.75), "-2.75", -2, -2.75, true},
      {Value(0.5), "0.5", 0, 0.5, true},
      {Value("text"), "text", 0, 0, false},
      {Value(""), "", 0, 0, false},
      {Value("12"), "12", 12, 12, false},
      {Value("1"), "1", 1, 1, true},
      {Value("2.75"), "2.75", 2, 2.75, false},
      {Value("12 apples"), "12 apples", 12, 0, false},
      {Value("YES"), "YES", 0, 0, true},
      {Value("tRuE"), "tRuE", 0, 0, true},
      {Value("on"), "on", 0, 0, true},
      {Value("off"), "off", 0, 0, false},
      {Value(Data{1}), Value(), 0, 0, false},
      {Value(Array{1}), Value(), 0, 0, false},
      {Value(Dictionary{{"a", 1}}), Value(), 0, 0, false},
      {Value(platform::Date{5}), Value(), 0, 0, false},
      {Value::nullMarker(), Value(), 0, 0, false},
  };
  for (const Row& row : rows) {
    SCOPED_TRACE(&row - rows);
    EXPECT_EQ(settingAsString(row.setting), row.asString);
    EXPECT_EQ(settingAsInteger(row.setting), row.asInteger);
    EXPECT_EQ(settingAsDouble(row.setting), row.asDouble);
    EXPECT_EQ(settingAsBool(row.setting), row.asBool);
  }
}

TEST(SettingConversions, ARealThatDoesNotFitIsTheNearestInteger) {
  EXPECT_EQ(settingAsInteger(0x1p63), kLargest);
  EXPECT_EQ(settingAsInteger(std::nextafter(0x1p63, 0)), kLargest - 1023);
  EXPECT_EQ(settingAsInteger(-0x1p63), kSmallest);
  EXPECT_EQ(settingAsInteger(std::nextafter(-0x1p63, -INFINITY)), kSmallest);
  EXPECT_EQ(settingAsInteger(INFINITY), kLargest);
  EXPECT_EQ(settingAsInteger(NAN), 0);
}

}  // namespace
