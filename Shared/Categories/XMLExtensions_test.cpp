#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Shared/Categories/NSXMLElementExtensions.h"
#include "Shared/Categories/NSXMLNodeExtensions.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::ErrorCode;
using platform::NSXMLNode;
using platform::Value;

NSXMLNode element(std::string_view name) {
  return NSXMLNodeExtensions::compactElementWithName(name).value();
}

TEST(NSXMLNodeExtensionsTest, ACompactElementIsOneTagUntilItHasContent) {
  NSXMLNode node = element("service");
  EXPECT_EQ(node.xmlString(), "<service/>");
  ASSERT_TRUE(node.addChild(element("job")));
  EXPECT_EQ(node.xmlString(), "<service><job/></service>");
}

TEST(NSXMLNodeExtensionsTest, ANumberBecomesAnAttributesText) {
  const struct {
    Value number;
    const char* text;
  } cases[] = {{42, "42"},   {-1, "-1"},   {true, "1"}, {false, "0"},
               {2.5, "2.5"}, {0.1, "0.1"}, {3.0, "3"},  {Value(), ""}};
  for (const auto& [number, text] : cases) {
    const auto node = NSXMLNodeExtensions::attributeWithName("n", number);
    ASSERT_TRUE(node);
    EXPECT_EQ(node->kind(), NSXMLNode::Kind::kAttribute);
    EXPECT_EQ(node->name(), "n");
    EXPECT_EQ(node->stringValue(), text);
  }
}

TEST(NSXMLNodeExtensionsTest, TextsThatXmlCannotHoldAreRefused) {
  for (const auto& name :
       {std::optional<std::string_view>(), std::optional<std::string_view>(""),
        std::optional<std::string_view>("a b"), std::optional<std::string_view>("\xff")}) {
    EXPECT_FALSE(NSXMLNodeExtensions::compactElementWithName(name));
    EXPECT_FALSE(NSXMLNodeExtensions::attributeWithName(name, 1));
  }
  const auto wrong = NSXMLNodeExtensions::attributeWithName("a", "text");
  ASSERT_FALSE(wrong);
  EXPECT_EQ(wrong.error().context, "an attribute's number is of the class NSString");
  EXPECT_EQ(wrong.error().osError, 0);
}

TEST(NSXMLElementExtensionsTest, ChildrenAreAddedInTheirOrder) {
  NSXMLNode root = element("root");
  ASSERT_TRUE(NSXMLElementExtensions::addChildren(root, {element("a"), element("b")}));
  ASSERT_TRUE(NSXMLElementExtensions::addChildren(root, {}));
  ASSERT_TRUE(NSXMLElementExtensions::addChildren(
      root, {NSXMLNode::textWithStringValue("text").value(), element("a")}));
  EXPECT_EQ(root.xmlString(), "<root><a/><b/>text<a/></root>");
}

TEST(NSXMLElementExtensionsTest, FailedChildrenLeaveTheElementUnchanged) {
  NSXMLNode root = element("root");
  const NSXMLNode attribute = NSXMLNodeExtensions::attributeWithName("a", 1).value();
  EXPECT_FALSE(NSXMLElementExtensions::addChildren(root, {element("a"), attribute}));
  EXPECT_EQ(root.xmlString(), "<root/>");
}

TEST(NSXMLElementExtensionsTest, TextsAndNumbersOfADictionaryBecomeAttributes) {
  NSXMLNode root = element("root");
  const Dictionary dictionary{{"text", "a<b"},
                              {"array", Array{1}},
                              {"number", 7},
                              {"data", Data{1}},
                              {"real", 0.5},
                              {"null", Value::nullMarker()},
                              {"boolean", true},
                              {"date", platform::Date{0}},
                              {"dictionary", Dictionary{}},
                              {"empty", ""}};
  ASSERT_TRUE(NSXMLElementExtensions::addAttributesfromDictionary(root, &dictionary));
  EXPECT_EQ(root.xmlString(),
            "<root text=\"a&lt;b\" number=\"7\" real=\"0.5\" boolean=\"1\" empty=\"\"/>");
}

TEST(NSXMLElementExtensionsTest, NoDictionaryAddsNothing) {
  NSXMLNode root = element("root");
  EXPECT_TRUE(NSXMLElementExtensions::addAttributesfromDictionary(root, nullptr));
  const Dictionary none;
  EXPECT_TRUE(NSXMLElementExtensions::addAttributesfromDictionary(root, &none));
  EXPECT_EQ(root.xmlString(), "<root/>");
}

TEST(NSXMLElementExtensionsTest, AFailedEntryLeavesTheElementUnchanged) {
  for (const Dictionary& dictionary :
       {Dictionary{{"good", 1}, {"not a name", 2}}, Dictionary{{"good", 1}, {"a", "\x01"}},
        Dictionary{{"good", 1}, {"a", "\xff"}}, Dictionary{{"good", 1}, {"", 1}}}) {
    NSXMLNode root = element("root");
    const auto added = NSXMLElementExtensions::addAttributesfromDictionary(root, &dictionary);
    ASSERT_FALSE(added);
    EXPECT_EQ(added.error().code, ErrorCode::kInvalid);
    EXPECT_EQ(root.xmlString(), "<root/>");
  }
}

}  // namespace
