#include "Platform/Texts/Utf8.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(Utf8, TheFirstIllFormedByteIsFound) {
  for (const char* text : {"", "a", "\u00e9", "\u20ac", "\U0001f600", "\U0010ffff", "\uffff"}) {
    EXPECT_EQ(findIllFormedUtf8(text), std::nullopt) << text;
  }
  for (const char* text : {"\x80", "\xff", "\xc3", "\xe2\x82", "\xf0\x9f\x98", "\xed\xa0\x80",
                           "\xc0\x80", "\xf4\x90\x80\x80", "\xf8\x88\x80\x80\x80"}) {
    EXPECT_EQ(findIllFormedUtf8(text), 0u) << text;
    EXPECT_EQ(findIllFormedUtf8("\u00e9x" + std::string(text)), 3u) << text;
  }
}

// A character may be at any place in a block of bytes.
TEST(Utf8, LongTextsGiveTheSameResultAsShortOnes) {
  for (std::size_t before = 0; before < 200; ++before) {
    const std::string ascii(before, 'x');
    const std::string after(130, 'y');
    EXPECT_EQ(endOfAscii(ascii, 0), before);
    EXPECT_EQ(endOfAscii(ascii + "\u20ac" + after, before / 2), before);
    EXPECT_EQ(endOfAscii(ascii + "\x80", before), before);
    EXPECT_EQ(findIllFormedUtf8(ascii + "\u20ac" + after), std::nullopt);
    EXPECT_EQ(findIllFormedUtf8(ascii + "\xe2\x82" + after), before);
  }
}

TEST(Utf8, AnIllFormedSequenceIsSkippedUpToItsFirstWrongByte) {
  using Read = std::pair<std::int32_t, std::size_t>;
  const auto read = [](std::string_view text) {
    std::vector<Read> characters;
    for (std::size_t at = 0; at < text.size();) {
      const std::int32_t character = nextCharacter(text, at);
      characters.emplace_back(character < 0 ? -1 : character, at);
    }
    return characters;
  };
  EXPECT_EQ(read("a\u00e9\u20ac\U0001f600"),
            (std::vector<Read>{{'a', 1}, {0xe9, 3}, {0x20ac, 6}, {0x1f600, 10}}));
  EXPECT_EQ(read(std::string_view("\0", 1)), (std::vector<Read>{{0, 1}}));
  EXPECT_EQ(read("\xe2\x82z"), (std::vector<Read>{{-1, 2}, {'z', 3}}));
  EXPECT_EQ(read("\xff\x80"), (std::vector<Read>{{-1, 1}, {-1, 2}}));
  // It does not read beyond the view, although the text continues in memory.
  EXPECT_EQ(read(std::string_view("\u20ac").substr(0, 2)), (std::vector<Read>{{-1, 2}}));
}

TEST(Utf8, ATextIsCutBetweenCharacters) {
  const std::string_view text = "a\u00e9\U0001f600z";
  const std::size_t kept[] = {0, 1, 1, 3, 3, 3, 3, 7};
  for (std::size_t size = 0; size < std::size(kept); ++size) {
    EXPECT_EQ(cutAtCharacter(text, size), text.substr(0, kept[size])) << size;
  }
  const std::string trailing(10, '\x80');
  EXPECT_EQ(cutAtCharacter(trailing, 8), trailing.substr(0, 8));
}

}  // namespace
}  // namespace platform
