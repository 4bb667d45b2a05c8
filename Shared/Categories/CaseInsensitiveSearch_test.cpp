#include "Shared/Categories/CaseInsensitiveSearch.h"

#include <string>

#include <gtest/gtest.h>

namespace CaseInsensitiveSearch {
namespace {

struct Case {
  std::string text;
  std::string part;
  bool isPrefix;
  bool isSuffix;
};

TEST(CaseInsensitiveSearchTest, MatchesEndAtVisibleCharacters) {
  const Case cases[] = {{"abcABC", "ABC", true, true},
                        {"", "a", false, false},
                        {"a", "", false, false},
                        // An accent belongs to its letter.
                        {"e\u0301x", "e", false, false},
                        {"xe\u0301", "\u0301", false, false},
                        {"e\u0301", "\u00c9", true, true},
                        {"\u00c9x", "e\u0301", true, false},
                        {"x\u00c9", "e\u0301", false, true},
                        {"x\u00c9", "e", false, false},
                        // Marks whose order does not matter.
                        {"a\u0323\u0307x", "a\u0307\u0323", true, false},
                        // A letter that folds to two is not split.
                        {"stra\u00dfe", "STRASSE", true, true},
                        {"stra\u00dfe", "stras", false, false},
                        {"STRASSE", "stra\u00df", true, false},
                        {"o\ufb03ce", "OFFICE", true, true},
                        {"o\ufb03ce", "of", false, false},
                        // A line end is one character.
                        {"a\r\n", "a\r", false, false},
                        {"a\r\nb", "\nb", false, false},
                        {"a\r\nb", "a\r\n", true, false},
                        {"a\r\nb", "\r\nb", false, true},
                        // So are a family and a flag.
                        {"\U0001f468\u200d\U0001f469", "\U0001f468", false, false},
                        {"\U0001f1e9\U0001f1ea", "\U0001f1e9", false, false},
                        {"\u1100\u1161x", "\u1100", false, false},
                        {"\uac00x", "\u1100\u1161", true, false},
                        // The sign for kelvin is a k.
                        {"\u212awh", "KW", true, false},
                        {"wor\u212a", "RK", false, true},
                        // Bytes that are no text.
                        {"a\xff", "a", true, false},
                        {"a\xff", "A\xff", true, true},
                        {"\xff"
                         "a",
                         "a", false, true},
                        {"a\xff", "\xff", false, true},
                        {"a\xfe", "a\xff", false, false},
                        {"\xe2\x82\xac", "\xe2", false, false},
                        {"\xe2\x82"
                         "a",
                         "\xe2", true, false},
                        {std::string("a\0b", 3), std::string("a\0", 2), true, false}};
  for (const auto& [text, part, prefix, suffix] : cases) {
    EXPECT_EQ(isPrefix(part, text), prefix)
        << testing::PrintToString(text) << " begins with " << testing::PrintToString(part);
    EXPECT_EQ(isSuffix(part, text), suffix)
        << testing::PrintToString(text) << " ends with " << testing::PrintToString(part);
  }
}

TEST(CaseInsensitiveSearchTest, EnormousTextsAreAnswered) {
  const std::string plain(2'000'000, 'a');
  const std::string accented = plain + "\u00e9";
  EXPECT_TRUE(isPrefix(plain, accented + "x"));
  EXPECT_TRUE(isSuffix("\u00c9", accented));
  EXPECT_TRUE(areEqual(accented, accented));
  EXPECT_FALSE(areEqual(accented, plain));
  // One visible character of a million marks.
  std::string marks = "a";
  for (int i = 0; i < 500'000; ++i) marks += "\u0301";
  EXPECT_FALSE(isPrefix("a", marks));
  EXPECT_FALSE(isSuffix("\u0301", marks));
}

// "a" with this many of each of two marks, whose order does not matter to a reader: the mark above
// may come before the mark to its right, or after it.
std::string marked(int count, const char* first, const char* second) {
  std::string text = "a";
  for (int i = 0; i < count; ++i) text += first;
  for (int i = 0; i < count; ++i) text += second;
  return text;
}

TEST(CaseInsensitiveSearchTest, BeyondThirtyMarksTheirOrderCounts) {
  EXPECT_TRUE(areEqual(marked(15, "\u0315", "\u0301"), marked(15, "\u0301", "\u0315")));
  EXPECT_FALSE(areEqual(marked(16, "\u0315", "\u0301"), marked(16, "\u0301", "\u0315")));
  EXPECT_TRUE(areEqual(marked(16, "\u0315", "\u0301"), marked(16, "\u0315", "\u0301")));
  // Each character has its own run.
  const std::string row = marked(15, "\u0315", "\u0301");
  EXPECT_TRUE(areEqual(row + row, row + marked(15, "\u0301", "\u0315")));
  EXPECT_TRUE(isPrefix(marked(15, "\u0301", "\u0315"), row + "x"));
}

// This takes minutes if the marks are sorted.
TEST(CaseInsensitiveSearchTest, AMillionMarksAreAnswered) {
  std::string marks = "a";
  for (int i = 0; i < 500'000; ++i) marks += "\u0315\u0301";
  EXPECT_TRUE(areEqual(marks, marks));
  EXPECT_FALSE(areEqual(marks, marks + "\u0301"));
  EXPECT_TRUE(isPrefix(marks, marks));
  EXPECT_TRUE(isSuffix(marks, marks));
}

TEST(CaseInsensitiveSearchTest, TheFirstMatchIsFound) {
  EXPECT_EQ(find("</a>", "x</A></a>", 0), 1u);
  EXPECT_EQ(find("</a>", "x</A></a>", 2), 5u);
  EXPECT_EQ(find("</a>", "x</A></a>", 6), std::string_view::npos);
  EXPECT_EQ(find("</a>", "", 0), std::string_view::npos);
  EXPECT_EQ(find("</a>", "</a", 0), std::string_view::npos);
  EXPECT_EQ(find("a", "a", 1), std::string_view::npos);
  EXPECT_EQ(find("a", "a", 7), std::string_view::npos);
}

TEST(CaseInsensitiveSearchTest, AMarkAfterThePartPreventsTheMatch) {
  EXPECT_EQ(find("</a>", "</a>\u0338 </a>", 0), 7u);
  EXPECT_EQ(find("</a>", "</a>\u200d", 0), std::string_view::npos);
  EXPECT_EQ(find("</a>", "</a>\u00e9", 0), 0u);
  EXPECT_EQ(find("</a>", "</a>\xff", 0), 0u);
}

}  // namespace
}  // namespace CaseInsensitiveSearch
