#include <limits>

#include <gtest/gtest.h>

#include "Shared/Categories/NSArrayExtensions.h"
#include "Shared/Categories/NSDictionaryExtensions.h"

namespace {

using platform::Array;
using platform::Data;
using platform::Dictionary;
using platform::Value;

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

TEST(NSDictionaryExtensionsTest, TheCompactDescriptionBreaksItsOwnLevelAlone) {
  EXPECT_EQ(NSDictionaryExtensions::compactDescription(Dictionary{}), "{}");
  EXPECT_EQ(NSDictionaryExtensions::compactDescription(Dictionary{{"a", 1}}), "{a : 1}");
  EXPECT_EQ(
      NSDictionaryExtensions::compactDescription(Dictionary{
          {"z", "text"}, {"a", Dictionary{{"b", 1}, {"c", Array{true, 2.5}}}}, {"d", Array{1, 2}}}),
      "{z : text,\n a : {b : 1, c : [1, 2.5]},\n d : [1, 2]}");
}

TEST(NSDictionaryExtensionsTest, ABooleanIsReadFromNumbers) {
  const Dictionary numbers{
      {"yes", true},     {"no", false},          {"one", 1},
      {"zero", 0},       {"negative", -1},       {"half", 0.5},
      {"realZero", 0.0}, {"negativeZero", -0.0}, {"nan", std::numeric_limits<double>::quiet_NaN()}};
  for (const char* key : {"yes", "one", "negative", "half", "nan"}) {
    EXPECT_TRUE(NSDictionaryExtensions::boolForKey(numbers, key)) << key;
  }
  for (const char* key : {"no", "zero", "realZero", "negativeZero", "absent"}) {
    EXPECT_FALSE(NSDictionaryExtensions::boolForKey(numbers, key)) << key;
  }
  EXPECT_FALSE(NSDictionaryExtensions::boolForKey(numbers, std::nullopt));
}

// The platform's rule applies, not the boolean words: "on" is false, "Yeti" true.
TEST(NSDictionaryExtensionsTest, ABooleanIsReadFromTextsAsThePlatformDoes) {
  const auto read = [](const char* text) {
    return NSDictionaryExtensions::boolForKey(Dictionary{{"key", text}}, "key");
  };
  for (const char* text : {"YES", "yes", "y", "Y", "true", "T", "t", "Yeti", "1", "9", "2x", "01",
                           "-1", "+5", " \t\n1", "\u00a0Y", "-0001", "00T"}) {
    EXPECT_TRUE(read(text)) << text;
  }
  for (const char* text : {"", " ", "no", "NO", "false", "on", "ON", "0", "00", "-0", "+", "-",
                           "n1", "x", ".5", "--1", "+-1", "\u0661",
                           "\xff"
                           "1"}) {
    EXPECT_FALSE(read(text)) << text;
  }
}

TEST(NSDictionaryExtensionsTest, ABooleanOfAnyOtherClassIsFalse) {
  const Dictionary others{{"array", Array{1}},
                          {"dictionary", Dictionary{{"a", 1}}},
                          {"data", Data{1}},
                          {"date", platform::Date{1}},
                          {"null", Value::nullMarker()}};
  for (const auto& [key, value] : others) {
    EXPECT_FALSE(NSDictionaryExtensions::boolForKey(others, key)) << key;
  }
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

TEST(NSArrayExtensionsTest, TheCompactDescriptionBreaksItsOwnLevelAlone) {
  EXPECT_EQ(NSArrayExtensions::compactDescription(Array{}), "[]");
  EXPECT_EQ(NSArrayExtensions::compactDescription(Array{"a"}), "[a]");
  EXPECT_EQ(NSArrayExtensions::compactDescription(
                Array{1, Array{2, 3}, Dictionary{{"k", 4}, {"l", 5}}, Value::nullMarker()}),
            "[1,\n [2, 3],\n {k : 4, l : 5},\n <null>]");
}

TEST(NSArrayExtensionsTest, AKeyPathGivesEachElementsValueInOrder) {
  const Array array{Dictionary{{"name", "one"}, {"inner", Dictionary{{"n", 1}}}},
                    Dictionary{{"name", "two"}, {"inner", Dictionary{{"n", 2}}}}};
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, "name"), (Array{"one", "two"}));
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, "inner.n"), (Array{1, 2}));
}

TEST(NSArrayExtensionsTest, ElementsWithoutAValueAreSkipped) {
  const Array array{Dictionary{{"a", Dictionary{{"b", 1}}}},
                    Dictionary{{"a", 5}},
                    Dictionary{{"b", 1}},
                    "text",
                    7,
                    Value::nullMarker(),
                    Dictionary{{"a", Dictionary{{"b", 2}}}}};
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, "a.b"), (Array{1, 2}));
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, "a.b.c"), Array{});
}

TEST(NSArrayExtensionsTest, WithoutAKeyPathThereIsNothing) {
  const Array array{Dictionary{{"", 1}, {" ", 2}}};
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, std::nullopt), Array{});
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, ""), Array{});
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, " \t"), Array{});
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(Array{}, "a"), Array{});
}

TEST(NSArrayExtensionsTest, AnArrayWithinThePathStandsForItsElements) {
  const Array array{Dictionary{{"all", Array{Dictionary{{"n", 1}}, Dictionary{{"m", 2}}}}}};
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, "all.n"),
            (Array{Array{1, Value::nullMarker()}}));
}

TEST(NSArrayExtensionsTest, EmptyKeysOfAKeyPathAreKeys) {
  const Array array{Dictionary{{"a", Dictionary{{"", Dictionary{{"b", 1}}}}}}};
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, "a..b"), Array{1});
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, "."), Array{});
  EXPECT_EQ(NSArrayExtensions::objectsForKeyPath(array, std::string(100'000, '.')), Array{});
}

// This takes hours if each key is looked up in each element.
TEST(NSArrayExtensionsTest, AnEnormousKeyPathOverAnEnormousArrayIsAnswered) {
  const Array numbers(100'000, Value(1));
  std::string path = "all";
  for (int i = 0; i < 1'000'000; ++i) path += ".x";
  const Array result = NSArrayExtensions::objectsForKeyPath({Dictionary{{"all", numbers}}}, path);
  ASSERT_EQ(result.size(), 1u);
  EXPECT_EQ(result[0], Value(Array(100'000, Value::nullMarker())));
}

}  // namespace
