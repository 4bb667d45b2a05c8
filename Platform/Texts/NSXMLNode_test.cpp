#include "Platform/Texts/NSXMLNode.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform {
namespace {

using EmptyElement = NSXMLNode::EmptyElement;

NSXMLNode element(std::string_view name, EmptyElement empty = EmptyElement::kCompact) {
  return NSXMLNode::elementWithName(name, empty).value();
}
NSXMLNode attribute(std::string_view name, std::string_view value) {
  return NSXMLNode::attributeWithName(name, value).value();
}
NSXMLNode text(std::string_view value) { return NSXMLNode::textWithStringValue(value).value(); }

TEST(NSXMLNodeTest, AnEmptyElementIsWrittenByItsOption) {
  EXPECT_EQ(element("a", EmptyElement::kCompact).xmlString(), "<a/>");
  EXPECT_EQ(element("a", EmptyElement::kExpanded).xmlString(), "<a></a>");
}

TEST(NSXMLNodeTest, ChildrenAndAttributesKeepTheirOrder) {
  NSXMLNode root = element("root");
  ASSERT_TRUE(root.addChild(element("b")));
  ASSERT_TRUE(root.addChild(text("text")));
  ASSERT_TRUE(root.addChild(element("a", EmptyElement::kExpanded)));
  ASSERT_TRUE(root.addAttribute(attribute("z", "1")));
  ASSERT_TRUE(root.addAttribute(attribute("y", "2")));
  EXPECT_EQ(root.xmlString(), "<root z=\"1\" y=\"2\"><b/>text<a></a></root>");
}

TEST(NSXMLNodeTest, AnAttributeOfTheSameNameIsReplacedInItsPlace) {
  NSXMLNode root = element("root");
  ASSERT_TRUE(root.addAttribute(attribute("z", "1")));
  ASSERT_TRUE(root.addAttribute(attribute("y", "2")));
  ASSERT_TRUE(root.addAttribute(attribute("z", "3")));
  EXPECT_EQ(root.xmlString(), "<root z=\"3\" y=\"2\"/>");
}

TEST(NSXMLNodeTest, CharactersWithAMeaningInXmlAreEscaped) {
  NSXMLNode root = element("r\u00e9");
  ASSERT_TRUE(root.addAttribute(attribute("a", "<\"&'>\n\t")));
  ASSERT_TRUE(root.addChild(text("<b>&\"'\r]]>")));
  EXPECT_EQ(root.xmlString(),
            "<r\u00e9 a=\"&lt;&quot;&amp;'&gt;&#10;&#9;\">&lt;b&gt;&amp;&quot;'&#13;]]&gt;"
            "</r\u00e9>");
}

TEST(NSXMLNodeTest, InvalidXmlNamesAreRefused) {
  for (const std::string_view name :
       {std::string_view(""), std::string_view(" "), std::string_view("1a"),
        std::string_view("a b"), std::string_view("<a"), std::string_view("a\xff"),
        std::string_view("a\0b", 3), std::string_view("-a"), std::string_view("a=")}) {
    const auto node = NSXMLNode::elementWithName(name, EmptyElement::kCompact);
    ASSERT_FALSE(node) << name;
    EXPECT_EQ(node.error().code, ErrorCode::kInvalid);
    EXPECT_THAT(node.error().context, testing::HasSubstr("is no name of XML"));
    EXPECT_FALSE(NSXMLNode::attributeWithName(name, "x")) << name;
  }
  for (const char* name : {"a", "_a", "a-b.c", "ns:a", "\u00e9"}) {
    EXPECT_TRUE(NSXMLNode::elementWithName(name, EmptyElement::kCompact)) << name;
  }
}

TEST(NSXMLNodeTest, InvalidXmlTextsAreRefused) {
  for (const std::string_view value :
       {std::string_view("a\xff"), std::string_view("\xed\xa0\x80"), std::string_view("a\0", 2),
        std::string_view("\x01"), std::string_view("\x1f"), std::string_view("\uffff")}) {
    EXPECT_FALSE(NSXMLNode::textWithStringValue(value));
    EXPECT_FALSE(NSXMLNode::attributeWithName("a", value));
  }
  EXPECT_TRUE(NSXMLNode::textWithStringValue(""));
  EXPECT_TRUE(NSXMLNode::textWithStringValue("\t\r\n\U0010ffff"));
}

TEST(NSXMLNodeTest, NodesAreAddedOnlyToTheRightKind) {
  NSXMLNode root = element("root");
  EXPECT_FALSE(root.addChild(attribute("a", "")));
  EXPECT_FALSE(root.addAttribute(text("a")));
  EXPECT_FALSE(root.addAttribute(element("a")));
  NSXMLNode leaf = text("leaf");
  EXPECT_FALSE(leaf.addChild(element("a")));
  EXPECT_FALSE(leaf.addAttribute(attribute("a", "")));
  EXPECT_FALSE(attribute("a", "").xmlString());
  EXPECT_EQ(leaf.xmlString(), "leaf");
  EXPECT_EQ(root.xmlString(), "<root/>");
}

TEST(NSXMLNodeTest, TheDepthIsBounded) {
  const auto nested = [](std::size_t depth) {
    NSXMLNode node = element("e");
    for (std::size_t i = 1; i < depth; ++i) {
      NSXMLNode outer = element("e");
      EXPECT_TRUE(outer.addChild(std::move(node)));
      node = std::move(outer);
    }
    return node;
  };
  EXPECT_TRUE(nested(NSXMLNode::kMaxDepth - 1).xmlString());
  const auto deepest = nested(NSXMLNode::kMaxDepth);
  EXPECT_EQ(deepest.xmlString()->size(), (NSXMLNode::kMaxDepth - 1) * 7 + 4);
  NSXMLNode outer = element("e");
  const auto added = outer.addChild(deepest);
  ASSERT_FALSE(added);
  EXPECT_EQ(added.error().code, ErrorCode::kExhausted);
  EXPECT_TRUE(outer.children().empty());
}

TEST(NSXMLNodeTest, ManyAndLargeNodesAreWritten) {
  NSXMLNode root = element("root");
  for (int i = 0; i < 100'000; ++i) ASSERT_TRUE(root.addChild(element("e")));
  ASSERT_TRUE(root.addChild(text(std::string(3'000'000, 'x'))));
  EXPECT_EQ(root.xmlString()->size(), 6u + 400'000u + 3'000'000u + 7u);
}

}  // namespace
}  // namespace platform
