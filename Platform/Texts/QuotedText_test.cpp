#include "Platform/Texts/QuotedText.h"

#include <string>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(QuotedText, APathIsWhole) {
  const std::string path(200, 'x');
  EXPECT_EQ(quotedWhole(path + "\n"), '"' + path + "\\x0a\"");
}

TEST(QuotedText, ItStaysOneLineOfCharacters) {
  EXPECT_EQ(quotedInMessage(""), "\"\"");
  EXPECT_EQ(quotedInMessage("a \u00e9\u20ac"), "\"a \u00e9\u20ac\"");
  EXPECT_EQ(shownInMessage("a\n\x7f\x1b["), "a\\x0a\\x7f\\x1b[");
  EXPECT_EQ(shownInMessage("\xe2\x82z\xff"), "\\xe2\\x82z\\xff");
}

TEST(QuotedText, ALongTextIsCutAfterSixtyCharacters) {
  std::string text;
  for (int i = 0; i < 60; ++i) text += "\u00e9";
  EXPECT_EQ(shownInMessage(text), text);
  EXPECT_EQ(shownInMessage(text + "x"), text + "...");
}

TEST(QuotedText, AnErrorNamesItsLineAndColumn) {
  const std::string_view text = "one\n\u00e9\u20acx\n";
  const auto position = [&](std::size_t offset) {
    const TextPosition at = positionInText(text, offset);
    return std::to_string(at.line) + ":" + std::to_string(at.column);
  };
  EXPECT_EQ(position(0), "1:1");
  EXPECT_EQ(position(3), "1:4");
  EXPECT_EQ(position(4), "2:1");
  EXPECT_EQ(position(9), "2:3");
  EXPECT_EQ(position(text.size()), "3:1");
  const Error error = errorInText(text, 9, "a.plist", "unexpected x");
  EXPECT_EQ(error.code, ErrorCode::kInvalid);
  EXPECT_EQ(error.context, "a.plist:2:3: unexpected x");
}

}  // namespace
}  // namespace platform
