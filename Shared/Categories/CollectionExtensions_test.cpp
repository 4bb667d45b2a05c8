#include <gtest/gtest.h>

#include "Shared/Categories/NSArrayExtensions.h"
#include "Shared/Categories/NSDictionaryExtensions.h"

namespace {

using platform::Array;
using platform::Dictionary;

TEST(NSDictionaryExtensionsTest, NilAndADictionaryWithoutEntriesAreEmpty) {
  EXPECT_TRUE(NSDictionaryExtensions::isNilOrEmpty(nullptr));
  const Dictionary none;
  EXPECT_TRUE(NSDictionaryExtensions::isNilOrEmpty(&none));
  const Dictionary some{{"a", 1}};
  EXPECT_FALSE(NSDictionaryExtensions::isNilOrEmpty(&some));
}

TEST(NSDictionaryExtensionsTest, OneKeyWithAnArrayReadsOnOneLine) {
  EXPECT_EQ(NSDictionaryExtensions::singleLineDescription(Dictionary{{"a", Array{1, 2}}}),
            "{a : [1, 2]}");
  EXPECT_EQ(NSDictionaryExtensions::singleLineDescription(Dictionary{}), "{}");
}

TEST(NSArrayExtensionsTest, NilAndAnArrayWithoutElementsAreEmpty) {
  EXPECT_TRUE(NSArrayExtensions::isNilOrEmpty(nullptr));
  const Array none;
  EXPECT_TRUE(NSArrayExtensions::isNilOrEmpty(&none));
  const Array some{1};
  EXPECT_FALSE(NSArrayExtensions::isNilOrEmpty(&some));
}

TEST(NSArrayExtensionsTest, ElementsReadOnOneLineInTheirOrder) {
  EXPECT_EQ(NSArrayExtensions::singleLineDescription(Array{"b", Dictionary{{"k", true}}, 1.5}),
            "[b, {k : 1}, 1.5]");
  EXPECT_EQ(NSArrayExtensions::singleLineDescription(Array{}), "[]");
}

}  // namespace
