#include "Shared/Categories/NSNumberExtensions.h"

#include <gtest/gtest.h>

namespace {

using platform::Value;

TEST(NSNumberExtensionsTest, TheBooleansAreNumbersThatKnowTheyAreBooleans) {
  EXPECT_EQ(NSNumberExtensions::booleanTrue().boolean(), true);
  EXPECT_EQ(NSNumberExtensions::booleanFalse().boolean(), false);
}

TEST(NSNumberExtensionsTest, OnlyATrueWordIsTrue) {
  for (const char* text : {"true", "YES", "yes", "On", "1", "tRuE"}) {
    EXPECT_EQ(NSNumberExtensions::booleanForStringValue(text).boolean(), true) << text;
  }
  for (const char* text : {"off", "false", "NO", "0", "maybe", "", " ", " yes", "2", "\xff"}) {
    EXPECT_EQ(NSNumberExtensions::booleanForStringValue(text).boolean(), false) << text;
  }
  EXPECT_EQ(NSNumberExtensions::booleanForStringValue(std::nullopt).boolean(), false);
}

}  // namespace
