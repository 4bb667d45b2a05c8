#include "Shared/Categories/NSAtributedStringExtensions.h"

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "Platform/Texts/HtmlText.h"

namespace NSAtributedStringExtensions {
namespace {

using Run = AttributedString::Run;
using Runs = std::vector<Run>;

constexpr NSRange kNotFound{INT64_MAX, 0};

Run plain(std::string text) { return {std::move(text), {}}; }
Run link(std::string text, std::string target) { return {std::move(text), {.link = target}}; }

NSRange rangeIn(std::string_view text) {
  std::int64_t characters = 0;
  for (const char c : text) characters += (c & 0xc0) != 0x80;
  return rangeOfLink(text, {0, characters});
}

TEST(RangeOfLinkTest, ItCoversTheWholeAnchor) {
  EXPECT_EQ(rangeIn("<a href=x>y</a>"), (NSRange{0, 15}));
  EXPECT_EQ(rangeIn("see <a href=x>y</a> there"), (NSRange{4, 15}));
  EXPECT_EQ(rangeIn("<A HREF=x>y</A>"), (NSRange{0, 15}));
  EXPECT_EQ(rangeIn("<a href</a>"), (NSRange{0, 11}));
  EXPECT_EQ(rangeIn("<a href=1>x</a> <a href=2>y</a>"), (NSRange{0, 15}));
}

TEST(RangeOfLinkTest, ItCountsCharacters) {
  EXPECT_EQ(rangeIn("\u00e9\U0001f600<a href=x>\u20ac</a>"), (NSRange{2, 15}));
}

TEST(RangeOfLinkTest, WithoutABeginningOrAnEndNothingIsFound) {
  for (const char* text : {"", "plain", "<a name=x>y</a>", "<a  href=x>y</a>", "<a href=x>y",
                           "</a> <a href=x>", "<a href=x></a", "< a href=x></a>"}) {
    EXPECT_EQ(rangeIn(text), kNotFound) << text;
  }
  EXPECT_EQ(rangeOfLink(std::nullopt, {0, 0}), kNotFound);
}

TEST(RangeOfLinkTest, OnlyTheBeginningMustLieWithinTheRange) {
  const std::string text = "ab<a href=x>y</a>cd";
  EXPECT_EQ(rangeOfLink(text, {0, 8}), kNotFound);
  EXPECT_EQ(rangeOfLink(text, {0, 9}), (NSRange{2, 15}));
  EXPECT_EQ(rangeOfLink(text, {2, 7}), (NSRange{2, 15}));
  EXPECT_EQ(rangeOfLink(text, {3, 16}), kNotFound);
}

TEST(RangeOfLinkTest, ARangeThatIsNotWithinTheTextFindsNothing) {
  const std::string text = "<a href=x>y</a>";
  EXPECT_EQ(rangeOfLink(text, {0, 15}), (NSRange{0, 15}));
  EXPECT_EQ(rangeOfLink(text, {0, 16}), kNotFound);
  EXPECT_EQ(rangeOfLink(text, {15, 0}), kNotFound);
  EXPECT_EQ(rangeOfLink(text, {16, 0}), kNotFound);
  EXPECT_EQ(rangeOfLink(text, {1, 15}), kNotFound);
  EXPECT_EQ(rangeOfLink(text, {-1, 5}), kNotFound);
  EXPECT_EQ(rangeOfLink(text, {0, -1}), kNotFound);
  EXPECT_EQ(rangeOfLink(text, {INT64_MAX, INT64_MAX}), kNotFound);
  EXPECT_EQ(rangeOfLink(text, {1, INT64_MAX}), kNotFound);
}

TEST(HyperLinkTest, TextWithoutAnchorsIsPlain) {
  EXPECT_TRUE(attributedStringWithHyperLink(std::nullopt).empty());
  EXPECT_TRUE(attributedStringWithHyperLink("").empty());
  for (const char* text : {"plain", "<b>x</b> &amp;", "<a href=x>y",
                           "a\xff"
                           "b"}) {
    EXPECT_EQ(attributedStringWithHyperLink(text).runs(), Runs{plain(text)}) << text;
  }
}

TEST(HyperLinkTest, AnAnchorBecomesALinkInTheStyleAroundIt) {
  EXPECT_EQ(attributedStringWithHyperLink("See <a href=\"http://x/?a&amp;b\">the "
                                          "<b>page</b></a> &amp; go.")
                .runs(),
            (Runs{plain("See "), link("the page", "http://x/?a&b"), plain(" &amp; go.")}));
}

TEST(HyperLinkTest, EveryAnchorBecomesALink) {
  EXPECT_EQ(attributedStringWithHyperLink("<a href=1>x</a><A HREF=2>\u20ac</A> and <a href=3>z</a>")
                .runs(),
            (Runs{link("x", "1"), link("\u20ac", "2"), plain(" and "), link("z", "3")}));
}

TEST(HyperLinkTest, AnAnchorWithoutTextStaysAsItIsWritten) {
  for (const char* text : {"<a href=x></a>", "a <a href=x> </a> b", "<a href=x><img></a>"}) {
    EXPECT_EQ(attributedStringWithHyperLink(text).string(), text);
    EXPECT_EQ(attributedStringWithHyperLink(text).runs().size(), 1u);
  }
}

TEST(HyperLinkTest, AnAnchorOfIllFormedTextStaysAsItIsWritten) {
  const std::string text = "a <a href=x>\xff</a> <a href=y>b</a>";
  EXPECT_EQ(attributedStringWithHyperLink(text).runs(),
            (Runs{plain("a <a href=x>\xff</a> "), link("b", "y")}));
}

TEST(HyperLinkTest, AnAnchorWithoutATargetIsText) {
  EXPECT_EQ(attributedStringWithHyperLink("<a hreflang=en>x</a>y").runs(), Runs{plain("xy")});
}

TEST(HyperLinkTest, AnAnchorThatIsTooLargeStaysAsItIsWritten) {
  const auto sized = [](std::size_t size) {
    return "<a href=x>" + std::string(size - 14, 'y') + "</a>";
  };
  for (const std::size_t size : {platform::kMaxHtmlBytes - 1, platform::kMaxHtmlBytes}) {
    EXPECT_EQ(attributedStringWithHyperLink(sized(size)).runs(),
              Runs{link(std::string(size - 14, 'y'), "x")});
  }
  const std::string large = sized(platform::kMaxHtmlBytes + 1);
  EXPECT_EQ(attributedStringWithHyperLink(large).runs(), Runs{plain(large)});
}

TEST(HyperLinkTest, TimeIsLinearInTheText) {
  std::string anchors;
  for (int i = 0; i < 10'000; ++i) anchors += "<a href=x>y</a> ";
  EXPECT_EQ(attributedStringWithHyperLink(anchors).runs().size(), 20'000u);
  std::string beginnings;
  for (int i = 0; i < 300'000; ++i) beginnings += "<a href";
  EXPECT_EQ(attributedStringWithHyperLink(beginnings).string(), beginnings);
  EXPECT_EQ(rangeIn(beginnings), kNotFound);
}

}  // namespace
}  // namespace NSAtributedStringExtensions
