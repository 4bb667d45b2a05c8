#include "Platform/Texts/HtmlText.h"

#include <string>

#include <gtest/gtest.h>

namespace platform {
namespace {

std::string textOf(std::string_view html) { return attributedStringFromHtml(html).string(); }

// The text and link of each run.
std::vector<std::pair<std::string, std::string>> linksOf(std::string_view html) {
  std::vector<std::pair<std::string, std::string>> links;
  const AttributedString string = attributedStringFromHtml(html);
  for (const auto& run : string.runs()) {
    links.emplace_back(run.text, run.attributes.link.value_or("-"));
  }
  return links;
}

using Links = std::vector<std::pair<std::string, std::string>>;

TEST(HtmlTextTest, OnlyVisibleTextIsKept) {
  const struct {
    const char* html;
    const char* text;
  } cases[] = {
      {"", ""},
      {"plain", "plain"},
      {"  a \n\t b  ", "a b"},
      {"a<b>b</b> <i> c</i>", "ab c"},
      {"&lt;&amp;&gt;&quot;&eacute;&#8364;&#x1F600;&nbsp;x", "<&>\"\u00e9\u20ac\U0001f600\u00a0x"},
      {"&nosuchentity; &amp", "&nosuchentity; &amp"},
      {"a<br>b<br/><br>c", "a\nb\n\nc"},
      {"<p>one</p> <p>two</p>three", "one\ntwo\nthree"},
      {"a<div><div><p>b</p></div></div>c", "a\nb\nc"},
      {"<ul><li>a<li>b</ul>", "a\nb"},
      {"a<!-- no -->b", "ab"},
      {"<script>var a = '<b>';</script>x<style>y {}</style>", "x"},
      {"<html><head><title>t</title></head><body>x</body></html>", "x"},
      {"<unknown>x</unknown>", "x"},
      {"a < b > c", "a < b > c"},
      {"<a", ""},
      {"</a></b>", ""},
      {"\u4e2d\u6587 <b>\u00e9</b>", "\u4e2d\u6587 \u00e9"}};
  for (const auto& [html, text] : cases) EXPECT_EQ(textOf(html), text) << html;
}

TEST(HtmlTextTest, LinksAreKeptAsTheyAreWritten) {
  EXPECT_EQ(linksOf("<a href=\"http://x/?a=1&amp;b=2\">link</a>"),
            (Links{{"link", "http://x/?a=1&b=2"}}));
  EXPECT_EQ(linksOf("a <A HREF=' x '>b <b>c</b></A> d"),
            (Links{{"a ", "-"}, {"b ", "x"}, {"c", "x"}, {" d", "-"}}));
  EXPECT_EQ(linksOf("<a name=x>b</a><a href=''>c</a>"), (Links{{"bc", "-"}}));
  EXPECT_EQ(linksOf("<a href=x>b"), (Links{{"b", "x"}}));
}

TEST(HtmlTextTest, AllTextHasAFontAndAParagraphStyle) {
  const AttributedString string = attributedStringFromHtml("a<b>b<i>c</i></b><em>d</em><h2>e</h2>");
  const auto run = [](const char* text, bool bold, bool italic, int level) {
    return AttributedString::Run{text,
                                 {.font = AttributedString::Font{bold, italic},
                                  .paragraphStyle = AttributedString::ParagraphStyle{level}}};
  };
  EXPECT_EQ(string.runs(),
            (std::vector<AttributedString::Run>{
                run("a", false, false, 0), run("b", true, false, 0), run("c", true, true, 0),
                run("d", false, true, 0), run("\n", false, false, 0), run("e", true, false, 2)}));
}

TEST(HtmlTextTest, NothingIsLoaded) {
  EXPECT_EQ(textOf("<!DOCTYPE html [<!ENTITY e SYSTEM 'file:///etc/passwd'>]><p>a&e;b</p>"),
            "]>\na&e;b");
  EXPECT_EQ(textOf("<img src='http://localhost:1/x'><iframe src='file:///etc/passwd'></iframe>x"),
            "x");
}

TEST(HtmlTextTest, IllFormedTextAndZeroBytesGiveAnEmptyText) {
  EXPECT_EQ(textOf("a\xff"), "");
  EXPECT_EQ(textOf(std::string_view("a\0b", 3)), "");
}

TEST(HtmlTextTest, TheSizeIsBounded) {
  EXPECT_EQ(textOf(std::string(kMaxHtmlBytes - 1, 'x')).size(), kMaxHtmlBytes - 1);
  EXPECT_EQ(textOf(std::string(kMaxHtmlBytes, 'x')).size(), kMaxHtmlBytes);
  EXPECT_EQ(textOf(std::string(kMaxHtmlBytes + 1, 'x')), "");
}

// The parser has a depth limit of its own.
TEST(HtmlTextTest, NestingIsWalkedToTheParsersDepth) {
  const auto nested = [](std::size_t depth) {
    std::string html;
    for (std::size_t i = 0; i < depth; ++i) html += "<b>";
    return html + "x";
  };
  EXPECT_EQ(textOf(nested(200)), "x");
  EXPECT_EQ(textOf(nested(kMaxHtmlBytes / 3 - 1)), "");
}

// The parser needs time in the square of their number.
TEST(HtmlTextTest, ATagMayHaveManyAttributes) {
  std::string html = "<a";
  for (int i = 0; html.size() + 20 < kMaxHtmlBytes; ++i) html += " a" + std::to_string(i);
  EXPECT_EQ(linksOf(html + " href=x>y"), (Links{{"y", "x"}}));
}

}  // namespace
}  // namespace platform
