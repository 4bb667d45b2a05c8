#include "Platform/PropertyLists/PropertyListPlaces.h"

#include <string>

#include <gtest/gtest.h>

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {
namespace {

std::string inWords(const TextPosition& position) {
  return std::to_string(position.line) + ":" + std::to_string(position.column);
}

constexpr std::string_view kXml =
    "<?xml version=\"1.0\"?>\n"
    "<!-- a comment -->\n"
    "<plist version=\"1.0\">\n"
    "<dict>\n"
    "  <key>One</key> <string>\xC3\xA4</string><!-- --><key>Two</key>\n"
    "  <array>\n"
    "    <true/>\n"
    "    <dict><key>Deep</key><integer>1</integer></dict>\n"
    "  </array>\n"
    "</dict>\n"
    "</plist>\n";

TEST(PropertyListPlaces, AreThoseOfKeysAndValues) {
  const auto root = placesInPropertyList(kXml);
  ASSERT_TRUE(root);
  EXPECT_EQ(inWords(root->value), "4:1");
  ASSERT_EQ(root->children.size(), 2u);
  EXPECT_EQ(inWords(root->children[0].key), "5:3");
  EXPECT_EQ(inWords(root->children[0].value), "5:18");
  // Columns count characters: the one above is of two bytes.
  EXPECT_EQ(inWords(root->children[1].key), "5:44");
  EXPECT_EQ(inWords(root->children[1].value), "6:3");
  ASSERT_EQ(root->children[1].children.size(), 2u);
  const PropertyListPlace& deep = root->children[1].children[1];
  EXPECT_EQ(inWords(deep.value), "8:5");
  ASSERT_EQ(deep.children.size(), 1u);
  EXPECT_EQ(inWords(deep.children[0].key), "8:11");
  EXPECT_EQ(inWords(deep.children[0].value), "8:26");
}

TEST(PropertyListPlaces, FollowTheOrderOfTheValue) {
  const auto value = readPropertyList(kXml, "x");
  const auto root = placesInPropertyList(kXml);
  ASSERT_TRUE(value && root);
  EXPECT_EQ(value->dictionary()->size(), root->children.size());
  EXPECT_EQ((*value)["Two"].array()->size(), root->children[1].children.size());
}

TEST(PropertyListPlaces, AreInUtf16Too) {
  std::string utf16 = "\xFF\xFE";
  for (const char character : std::string_view("<plist>\n<true/></plist>")) {
    utf16 += character;
    utf16 += '\0';
  }
  const auto root = placesInPropertyList(utf16);
  ASSERT_TRUE(root);
  EXPECT_EQ(inWords(root->value), "2:1");
}

TEST(PropertyListPlaces, ABinaryListHasNone) {
  const auto bytes = writePropertyList(Dictionary{{"Key", 1}}, PropertyListFormat::kBinary);
  ASSERT_TRUE(bytes);
  EXPECT_FALSE(placesInPropertyList(
      std::string_view(reinterpret_cast<const char*>(bytes->data()), bytes->size())));
}

TEST(PropertyListPlaces, OtherBytesHaveNone) {
  EXPECT_FALSE(placesInPropertyList(""));
  EXPECT_FALSE(placesInPropertyList("<plist><dict>"));
  EXPECT_FALSE(placesInPropertyList("\xFF\xFF"));
}

}  // namespace
}  // namespace platform
