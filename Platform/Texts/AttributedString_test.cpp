#include "Platform/Texts/AttributedString.h"

#include <gtest/gtest.h>

namespace platform {
namespace {

using Run = AttributedString::Run;
using Runs = std::vector<Run>;

const AttributedString::Attributes kLink{.link = "x"};
const AttributedString::Attributes kBold{.font = AttributedString::Font{.bold = true},
                                         .paragraphStyle = AttributedString::ParagraphStyle{}};
const AttributedString::Attributes kItalic{.font = AttributedString::Font{.italic = true}};

TEST(AttributedStringTest, NeighboursWithTheSameAttributesAreOneRun) {
  AttributedString string("a");
  string.append("b", {});
  string.append("c", kLink);
  string.append("", kBold);
  string.append("d", kLink);
  EXPECT_EQ(string.runs(), (Runs{{"ab", {}}, {"cd", kLink}}));
  EXPECT_EQ(string.string(), "abcd");
}

TEST(AttributedStringTest, ItIsEmptyWithoutText) {
  AttributedString string;
  EXPECT_TRUE(string.empty());
  string.append("", kLink);
  EXPECT_TRUE(string.empty());
  EXPECT_EQ(AttributedString(""), string);
}

TEST(AttributedStringTest, AnotherStringIsAppendedWithItsAttributes) {
  AttributedString string("a");
  AttributedString other("b");
  other.append("c", kLink);
  string.append(other);
  EXPECT_EQ(string.runs(), (Runs{{"ab", {}}, {"c", kLink}}));
}

TEST(AttributedStringTest, RemovingAnAttributeJoinsEqualRuns) {
  AttributedString string("a");
  string.append("b", kItalic);
  string.append("c", kLink);
  string.append("d", kBold);
  string.removeFont();
  EXPECT_EQ(string.runs(),
            (Runs{{"ab", {}}, {"c", kLink}, {"d", {.paragraphStyle = kBold.paragraphStyle}}}));
  string.removeParagraphStyle();
  EXPECT_EQ(string.runs(), (Runs{{"ab", {}}, {"c", kLink}, {"d", {}}}));
}

}  // namespace
}  // namespace platform
