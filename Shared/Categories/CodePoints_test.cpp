#include "Shared/Categories/CodePoints.h"

#include <string>

#include <gtest/gtest.h>

namespace CodePoints {
namespace {

TEST(CodePointsTest, CharactersAreCodePoints) {
  EXPECT_EQ(count(""), 0u);
  EXPECT_EQ(count("a\u00e9\u20ac\U0001f600"), 4u);
  EXPECT_EQ(count(std::string_view("\0a", 2)), 2u);
  EXPECT_EQ(count("e\u0301"), 2u);
}

TEST(CodePointsTest, EachIllFormedByteCountsAsOne) {
  EXPECT_EQ(count("\xff"), 1u);
  EXPECT_EQ(count("\xe2\x82"), 2u);          // a cut euro sign
  EXPECT_EQ(count("\xed\xa0\x80"), 3u);      // a surrogate
  EXPECT_EQ(count("\xc0\x80"), 2u);          // an overlong zero
  EXPECT_EQ(count("\xf4\x90\x80\x80"), 4u);  // behind the last code point
  EXPECT_EQ(count("\xe2\x82"
                  "a\u20ac"),
            4u);  // The bytes after it are read as they stand.
}

TEST(CodePointsTest, OffsetsAreInBytes) {
  const std::string text = "a\u00e9\u20ac\U0001f600z";
  const std::size_t offsets[] = {0, 1, 3, 6, 10, 11, 11};
  for (std::size_t i = 0; i < std::size(offsets); ++i) EXPECT_EQ(offsetOf(i, text), offsets[i]);
  EXPECT_EQ(offsetOf(SIZE_MAX, text), text.size());
  EXPECT_EQ(offsetOf(0, ""), 0u);
}

// A character's position in the blocks that are read at once does not matter.
TEST(CodePointsTest, LongTextsGiveTheSameResultAsShortOnes) {
  for (std::size_t before = 0; before < 200; ++before) {
    const std::string ascii(before, 'x');
    const std::string text = ascii + "\u20ac" + std::string(130, 'y');
    EXPECT_EQ(count(text), before + 131);
    EXPECT_EQ(offsetOf(before, text), before);
    EXPECT_EQ(offsetOf(before + 1, text), before + 3);
    EXPECT_EQ(offsetOf(before + 100, text), before + 102);
    EXPECT_EQ(count(ascii + "\xe2\x82" + std::string(130, 'y')), before + 132);
  }
}

}  // namespace
}  // namespace CodePoints
