#include "Shared/Categories/NSStringExtensions.h"

#include <gtest/gtest.h>

namespace NSStringExtensions {
namespace {

TEST(NSStringExtensionsTest, NilAndTheEmptyTextAreEmpty) {
  EXPECT_TRUE(isNilOrEmpty(std::nullopt));
  EXPECT_TRUE(isNilOrEmpty(""));
  EXPECT_FALSE(isNilOrEmpty(" "));
}

TEST(NSStringExtensionsTest, BlanksTabsAndLineEndsAreWhiteSpace) {
  EXPECT_TRUE(isNilOrWhiteSpace(std::nullopt));
  EXPECT_TRUE(isNilOrWhiteSpace(""));
  EXPECT_TRUE(isNilOrWhiteSpace(" \t\r\n\v\f"));
  EXPECT_TRUE(isNilOrWhiteSpace("\u00a0\u2003\u2028\u3000\u0085"));
  EXPECT_FALSE(isNilOrWhiteSpace(" a "));
  EXPECT_FALSE(isNilOrWhiteSpace("\u200b"));
}

TEST(NSStringExtensionsTest, IllFormedBytesAreNotWhiteSpace) {
  EXPECT_FALSE(isNilOrWhiteSpace("\xc2"));
  EXPECT_FALSE(isNilOrWhiteSpace(" \xff "));
  EXPECT_FALSE(isNilOrWhiteSpace(std::string_view("\0", 1)));
}

TEST(NSStringExtensionsTest, DecimalDigitsAreThoseOfAnyScript) {
  EXPECT_TRUE(isDecimalDigits("0123456789"));
  EXPECT_TRUE(isDecimalDigits("\u0663\uff19"));
  EXPECT_FALSE(isDecimalDigits(std::nullopt));
  EXPECT_FALSE(isDecimalDigits(" "));
  EXPECT_FALSE(isDecimalDigits("1 2"));
  EXPECT_FALSE(isDecimalDigits("-1"));
  EXPECT_FALSE(isDecimalDigits("x"));
  EXPECT_FALSE(isDecimalDigits("\u00bd"));
}

}  // namespace
}  // namespace NSStringExtensions
