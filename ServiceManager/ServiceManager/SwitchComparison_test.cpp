#include "ServiceManager/ServiceManager/SwitchComparison.h"

#include <gtest/gtest.h>

namespace {

using namespace platform;
using enum SwitchComparison;

struct Row {
  const char* what;
  Value expected;
  Value current;
  SwitchComparison result;
};

class CompareSwitch : public testing::TestWithParam<Row> {};

TEST_P(CompareSwitch, HoldsTheSettingAgainstTheCatalogue) {
  EXPECT_EQ(compareSwitch(GetParam().expected, GetParam().current), GetParam().result)
      << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(
    Table, CompareSwitch,
    testing::Values(
        Row{"equal numbers", 1, 1, kMatches}, Row{"a boolean is a number", 1, true, kMatches},
        Row{"a boolean is a number", true, 1, kMatches},
        Row{"a real is a number", 1, 1.0, kMatches}, Row{"exactly", 1, 1.5, kDiffers},
        Row{"another number", 1, 0, kDiffers}, Row{"equal texts", "on", "on", kMatches},
        Row{"another text", "on", "off", kDiffers}, Row{"in letter case", "on", "ON", kDiffers},
        Row{"a number and a text", 1, "1", kRaises}, Row{"a text and a number", "1", 1, kRaises},
        Row{"a number and a list", 1, Array{1}, kRaises},
        Row{"a text and data", "on", Data{1}, kRaises},
        Row{"a number and null", 1, Value::nullMarker(), kRaises},
        Row{"lists are never expected", Array{1}, Array{1}, kDiffers},
        Row{"nor dictionaries", Dictionary{{"a", 1}}, Dictionary{{"a", 1}}, kDiffers},
        Row{"nor data", Data{1}, Data{1}, kDiffers}, Row{"nor dates", Date{1}, Date{1}, kDiffers},
        Row{"nor null", Value::nullMarker(), Value::nullMarker(), kDiffers}));

}  // namespace
