#include "Platform/Texts/IntegerValue.h"

#include <cstdint>
#include <string_view>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(IntegerValueTest, ReadsTheNumberThatATextBeginsWith) {
  const struct {
    std::string_view text;
    std::int64_t value;
  } cases[] = {
      {"", 0},
      {"0", 0},
      {"15", 15},
      {"007", 7},
      {"15-generic", 15},
      {"  15", 15},
      {"\t\n\r 15 ", 15},
      {"\u00a0\u300015", 15},  // a no-break and an ideographic space
      {"+15", 15},
      {"-15", -15},
      {"- 15", 0},
      {"--15", 0},
      {"+-15", 0},
      {"-", 0},
      {"x15", 0},
      {"0x10", 0},
      {".5", 0},
      {"\u0661\u0665", 15},  // Arabic-Indic digits
      {"\u00b2", 0},         // a superscript two is not a decimal digit
      {"1\xff"
       "5",
       1},
      {"\xff"
       "15",
       0},
      {"9223372036854775806", INT64_MAX - 1},
      {"9223372036854775807", INT64_MAX},
      {"9223372036854775808", INT64_MAX},
      {"99999999999999999999999", INT64_MAX},
      {"-9223372036854775807", -INT64_MAX},
      {"-9223372036854775808", INT64_MIN},
      {"-9223372036854775809", INT64_MIN},
      {"-99999999999999999999999", INT64_MIN},
  };
  for (const auto& [text, value] : cases) EXPECT_EQ(integerValue(text), value) << text;
}

}  // namespace
}  // namespace platform
