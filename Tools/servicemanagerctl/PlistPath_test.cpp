#include "Tools/servicemanagerctl/PlistPath.h"

#include <gtest/gtest.h>

namespace {

using namespace platform;
using Parts = std::vector<std::string>;

const Value kRoot = Dictionary{{"One", Array{1, Dictionary{{"a/b", "x"}}}}, {"Two", true}};

TEST(PlistPath, HasPartsBetweenSlashes) {
  EXPECT_EQ(partsOfPath(""), Parts());
  EXPECT_EQ(partsOfPath("One/1/a~1b"), (Parts{"One", "1", "a/b"}));
  EXPECT_EQ(partsOfPath("a~01"), Parts{"a~1"});
  EXPECT_EQ(pathOfKey("One/1", "a/~"), "One/1/a~1~0");
}

TEST(PlistPath, LeadsThroughDictionariesAndArrays) {
  EXPECT_EQ(valueAtPath(kRoot, {}), kRoot);
  EXPECT_EQ(valueAtPath(kRoot, {"One", "1", "a/b"}), Value("x"));
  EXPECT_EQ(valueAtPath(kRoot, {"One", "2"}), std::nullopt);
  EXPECT_EQ(valueAtPath(kRoot, {"One", "-1"}), std::nullopt);
  EXPECT_EQ(valueAtPath(kRoot, {"Two", "x"}), std::nullopt);
  EXPECT_EQ(valueAtPath(kRoot, {"Three"}), std::nullopt);
}

TEST(PlistPath, AValueIsReplacedOrAdded) {
  const auto changed = [](const Parts& path) { return withValueAtPath(kRoot, path, 5); };
  EXPECT_EQ(changed({}), Value(5));
  EXPECT_EQ((*changed({"One", "0"}))["One"].array()->front(), Value(5));
  EXPECT_EQ((*changed({"One", "2"}))["One"].array()->size(), 3u);
  EXPECT_EQ((*changed({"Three"}))["Three"], Value(5));
}

TEST(PlistPath, NothingIsMadeOnTheWay) {
  EXPECT_EQ(withValueAtPath(kRoot, {"Three", "x"}, 5).error(), "there is no \"Three\" on the way");
  EXPECT_FALSE(withValueAtPath(kRoot, {"One", "3"}, 5));
  EXPECT_FALSE(withValueAtPath(kRoot, {"Two", "x"}, 5));
}

TEST(PlistDifference, IsTheSmallestValueThatDiffers) {
  const Value other = Dictionary{{"One", Array{1, Dictionary{{"a/b", "y"}}, 3}}, {"New", 1}};
  EXPECT_EQ(differencesOf(kRoot, other),
            (std::vector<PlistDifference>{
                {"One/1/a~1b", "x", "y"}, {"One/2", {}, 3}, {"Two", true, {}}, {"New", {}, 1}}));
  EXPECT_TRUE(differencesOf(kRoot, kRoot).empty());
}

TEST(PlistDifference, TypesCount) {
  EXPECT_EQ(differencesOf(true, 1).size(), 1u);
  EXPECT_EQ(differencesOf(1, 1.0).size(), 1u);
}

}  // namespace
