#include "Platform/Texts/Description.h"

#include <limits>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(DescriptionTest, ScalarsHaveOneTextEach) {
  EXPECT_EQ(description(Value("as it stands")), "as it stands");
  EXPECT_EQ(description(Value(true)), "1");
  EXPECT_EQ(description(Value(false)), "0");
  EXPECT_EQ(description(Value(std::numeric_limits<std::int64_t>::min())), "-9223372036854775808");
  EXPECT_EQ(description(Value::nullMarker()), "<null>");
  EXPECT_EQ(description(Value()), "(null)");
}

TEST(DescriptionTest, ARealIsTheShortestTextThatReadsBack) {
  EXPECT_EQ(description(Value(1.0)), "1");
  EXPECT_EQ(description(Value(0.1)), "0.1");
  EXPECT_EQ(description(Value(1.0 / 3)), "0.3333333333333333");
  EXPECT_EQ(description(Value(-2.5)), "-2.5");
}

TEST(DescriptionTest, DataIsShownInGroupsOfFourBytes) {
  EXPECT_EQ(description(Value(Data{})), "<>");
  EXPECT_EQ(description(Value(Data{0, 1, 2, 255})), "<000102ff>");
  EXPECT_EQ(description(Value(Data{0, 1, 2, 3, 4, 5, 6, 7, 8})), "<00010203 04050607 08>");
}

TEST(DescriptionTest, ADateIsUtcToTheSecond) {
  EXPECT_EQ(description(Value(Date{0})), "2001-01-01 00:00:00 +0000");
  EXPECT_EQ(description(Value(Date{-0.5})), "2000-12-31 23:59:59 +0000");
  EXPECT_EQ(description(Value(Date{-978'307'200})), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(description(Value(Date{1e300})), "1e+300");
  EXPECT_EQ(description(Value(Date{std::numeric_limits<double>::quiet_NaN()})), "nan");
}

TEST(DescriptionTest, CollectionsAreOnOneLine) {
  EXPECT_EQ(singleLineDescription(Array{}), "[]");
  EXPECT_EQ(singleLineDescription(Dictionary{}), "{}");
  EXPECT_EQ(singleLineDescription(Array{1, "a", Value::nullMarker()}), "[1, a, <null>]");
  EXPECT_EQ(singleLineDescription(Dictionary{{"b", true}, {"a", Array{Dictionary{{"x", 1}}}}}),
            "{b : 1, a : [{x : 1}]}");
}

}  // namespace
}  // namespace platform
