#include "Tools/servicemanagerctl/JsonValue.h"

#include <cmath>

#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyListLimits.h"

namespace {

using namespace platform;

std::string faultOf(std::string_view text) {
  const auto value = valueOfJson(text, "x");
  return value ? "" : value.error().context;
}

TEST(JsonValue, HasTheSameTypes) {
  const auto value = valueOfJson(R"({"a": [1, 1.5, true, "x", null], "b": {}})", "x");
  ASSERT_TRUE(value);
  EXPECT_EQ(*value, Value(Dictionary{{"a", Array{1, 1.5, true, "x", Value::nullMarker()}},
                                     {"b", Dictionary()}}));
  EXPECT_TRUE((*value)["a"].array()->at(0).integer());
  EXPECT_TRUE((*value)["a"].array()->at(1).real());
  EXPECT_TRUE((*value)["a"].array()->at(2).boolean());
}

TEST(JsonValue, AFaultHasItsPlace) {
  EXPECT_EQ(faultOf("{\"a\":\n  tru}"), "x:2:6: this is no JSON");
  EXPECT_EQ(faultOf("{\"a\": 1, \"a\": 2}"), "x: the key \"a\" occurs twice");
  EXPECT_EQ(faultOf("18446744073709551615"),
            "x: 18446744073709551615 is above the largest integer");
  EXPECT_NE(faultOf(""), "");
}

TEST(JsonValue, IsAsDeepAsAPropertyList) {
  const std::string deep(kMaxPropertyListDepth, '[');
  EXPECT_EQ(faultOf(deep + std::string(kMaxPropertyListDepth, ']')), "");
  EXPECT_EQ(faultOf(deep + "["), "x: more than 128 collections inside one another");
  EXPECT_EQ(faultOf(std::string(1'000'000, '[')),
            "x: more than 128 collections inside one another");
}

TEST(JsonValue, ALossIsNamed) {
  EXPECT_EQ(lossInJson(Dictionary{{"a", Array{1, "x", Value::nullMarker()}}}), "");
  EXPECT_EQ(lossInJson(Dictionary{{"a", Array{Data{1}}}}), "a/0 is data");
  EXPECT_EQ(lossInJson(Dictionary{{"a", Date{}}}), "a is a date");
  EXPECT_EQ(lossInJson(std::nan("")), "the value is no finite number");
}

}  // namespace
