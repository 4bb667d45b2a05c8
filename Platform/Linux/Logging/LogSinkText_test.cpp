#include "Platform/Linux/Logging/LogSinkText.h"

#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Testing/Logging/LogReceiver.h"

namespace platform {
namespace {

using namespace std::string_literals;

std::string escaped(std::string_view text, std::string_view reserved = {}) {
  std::string line;
  appendEscaped(line, text, reserved);
  return line;
}

TEST(LogSinkTextTest, OnlyHarmfulCharactersAreEscaped) {
  const std::vector<std::pair<std::string, std::string>> cases{
      {"", ""},
      {"plain 100% \"text\" ~", "plain 100% \"text\" ~"},
      {"Grüße 漢字 🙂 \u00a0", "Grüße 漢字 🙂 \u00a0"},
      {"a\nb", "a\\nb"},
      {"\r\t", "\\r\\t"},
      {"\\", "\\\\"},
      {"\\n", "\\\\n"},
      {"\x1b[0m\x7f", "\\x1b[0m\\x7f"},
      {"\0\x1f "s, "\\x00\\x1f "},
      {"\u0080\u009f", "\\xc2\\x80\\xc2\\x9f"},
      {"\u2027\u2028\u2029\u202a", "\u2027\\xe2\\x80\\xa8\\xe2\\x80\\xa9\u202a"},
      {"\xff", "\\xff"},
      {"\x80", "\\x80"},
      {"\xc1\xbf", "\\xc1\\xbf"},
      {"\xc2", "\\xc2"},
      {"\xe0\x9f\x80", "\\xe0\\x9f\\x80"},
      {"\xe0\xa0\x80", "\xe0\xa0\x80"},
      {"\xed\x9f\xbf", "\xed\x9f\xbf"},
      {"\xed\xa0\x80", "\\xed\\xa0\\x80"},
      {"\xf0\x8f\x80\x80", "\\xf0\\x8f\\x80\\x80"},
      {"\xf0\x90\x80\x80", "\xf0\x90\x80\x80"},
      {"\xf4\x8f\xbf\xbf", "\xf4\x8f\xbf\xbf"},
      {"\xf4\x90\x80\x80", "\\xf4\\x90\\x80\\x80"},
      {"\xf5\x80\x80\x80", "\\xf5\\x80\\x80\\x80"},
      {"\xe2\x82", "\\xe2\\x82"},
      {"\xe2\x82x", "\\xe2\\x82x"},
  };
  for (const auto& [text, line] : cases) {
    EXPECT_EQ(escaped(text), line) << testing::PrintToString(text);
    EXPECT_EQ(unescapeLogText(escaped(text)), text);
  }
}

TEST(LogSinkTextTest, ReservedCharactersAreEscapedToo) {
  EXPECT_EQ(escaped("a b[c]", " ["), "a\\x20b\\x5bc]");
}

TEST(LogSinkTextTest, EveryPairOfBytesCanBeRecovered) {
  for (int first = 0; first < 256; ++first) {
    for (int second = 0; second < 256; ++second) {
      const std::string text{static_cast<char>(first), static_cast<char>(second)};
      ASSERT_EQ(unescapeLogText(escaped(text)), text) << first << ' ' << second;
    }
  }
}

TEST(LogSinkTextTest, LevelsHaveNames) {
  EXPECT_EQ(levelName(ASL_LEVEL_EMERG), "Emergency");
  EXPECT_EQ(levelName(ASL_LEVEL_ERR), "Error");
  EXPECT_EQ(levelName(ASL_LEVEL_DEBUG), "Debug");
}

}  // namespace
}  // namespace platform
