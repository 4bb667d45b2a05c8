#include "ServiceManager/Catalogue/SwitchComparison.h"

#include <gtest/gtest.h>

namespace {

using namespace platform;
using enum SwitchComparison;

struct SwitchRow {
  const char* what;
  Value expected;
  Value current;
  SwitchComparison result;
};

class CompareSwitch : public testing::TestWithParam<SwitchRow> {};

TEST_P(CompareSwitch, ComparesTheSettingWithTheCatalogue) {
  EXPECT_EQ(compareSwitch(GetParam().expected, GetParam().current), GetParam().result)
      << GetParam().what;
}

INSTANTIATE_TEST_SUITE_P(
    Table, CompareSwitch,
    testing::Values(
        SwitchRow{"equal numbers", 1, 1, kMatches},
        SwitchRow{"a boolean is a number", 1, true, kMatches},
        SwitchRow{"a boolean is a number", true, 1, kMatches},
        SwitchRow{"a real is a number", 1, 1.0, kMatches}, SwitchRow{"exactly", 1, 1.5, kDiffers},
        SwitchRow{"another number", 1, 0, kDiffers}, SwitchRow{"equal texts", "on", "on", kMatches},
        SwitchRow{"another text", "on", "off", kDiffers},
        SwitchRow{"in letter case", "on", "ON", kDiffers},
        SwitchRow{"a number and a text", 1, "1", kRaises},
        SwitchRow{"a text and a number", "1", 1, kRaises},
        SwitchRow{"a number and a list", 1, Array{1}, kRaises},
        SwitchRow{"a text and data", "on", Data{1}, kRaises},
        SwitchRow{"a number and null", 1, Value::nullMarker(), kRaises},
        SwitchRow{"lists are never expected", Array{1}, Array{1}, kDiffers},
        SwitchRow{"nor dictionaries", Dictionary{{"a", 1}}, Dictionary{{"a", 1}}, kDiffers},
        SwitchRow{"nor data", Data{1}, Data{1}, kDiffers},
        SwitchRow{"nor dates", Date{1}, Date{1}, kDiffers},
        SwitchRow{"nor null", Value::nullMarker(), Value::nullMarker(), kDiffers}));

}  // namespace
