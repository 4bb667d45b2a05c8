#include "Tools/servicemanagerctl/ValueJson.h"

#include <limits>

#include <gtest/gtest.h>

namespace {

using namespace platform;

TEST(ValueJsonTest, EachKindOfValueHasItsJson) {
  EXPECT_EQ(jsonOf(Dictionary{{"b", true}, {"i", 3}, {"r", 0.5}, {"a", Array{"x"}}}).dump(),
            R"({"b":true,"i":3,"r":0.5,"a":["x"]})");
  EXPECT_EQ(jsonOf(Data{0xff}).dump(), R"("/w==")");
  EXPECT_TRUE(jsonOf(Value()).is_null());
  EXPECT_TRUE(jsonOf(Value::nullMarker()).is_null());
}

TEST(ValueJsonTest, ARealThatJsonHasNotIsAWord) {
  constexpr double kInfinity = std::numeric_limits<double>::infinity();
  EXPECT_EQ(jsonOf(Array{kInfinity, -kInfinity, std::numeric_limits<double>::quiet_NaN()}).dump(),
            R"(["inf","-inf","nan"])");
  EXPECT_EQ(jsonOf(Array{-0.0, 1.0}).dump(), "[-0.0,1.0]");
}

TEST(ValueJsonTest, ShownTextIsAsciiOnOneLine) {
  EXPECT_EQ(shown("a\n\033[2J\"\u00e9"), R"("a\n\u001b[2J\"\u00e9")");
  EXPECT_EQ(plain("com.example"), "com.example");
  EXPECT_EQ(plain("\033"), "\\u001b");
}

}  // namespace
