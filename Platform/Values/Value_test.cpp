#include "Platform/Values/Value.h"

#include <limits>

#include <gtest/gtest.h>

namespace platform {
namespace {

TEST(ValueTest, NumbersOfAnyKindAreEqualByExactValue) {
  EXPECT_EQ(Value(true), Value(1));
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(1.0), Value(true));
  EXPECT_NE(Value(1), Value(1.5));
  EXPECT_NE(Value(false), Value(1));
}

TEST(ValueTest, AnIntegerIsNotRoundedBeforeItIsCompared) {
  constexpr std::int64_t kTwoTo53 = std::int64_t{1} << 53;
  EXPECT_EQ(Value(kTwoTo53), Value(9007199254740992.0));
  EXPECT_NE(Value(kTwoTo53 + 1), Value(9007199254740992.0));
  EXPECT_NE(Value(std::numeric_limits<std::int64_t>::max()), Value(9223372036854775808.0));
  EXPECT_EQ(Value(std::numeric_limits<std::int64_t>::min()), Value(-9223372036854775808.0));
  EXPECT_NE(Value(0), Value(std::numeric_limits<double>::quiet_NaN()));
}

TEST(ValueTest, ANumberNeverEqualsAText) {
  EXPECT_NE(Value(1), Value("1"));
  EXPECT_NE(Value(), Value(0));
  EXPECT_NE(Value(), Value::nullMarker());
}

TEST(ValueTest, EqualityOfDictionariesIgnoresOrder) {
  const Value forward(Dictionary{{"a", 1}, {"b", "x"}});
  const Value backward(Dictionary{{"b", "x"}, {"a", 1.0}});
  EXPECT_EQ(forward, backward);
  EXPECT_NE(forward, Value(Dictionary{{"a", 1}, {"c", "x"}}));
  EXPECT_NE(forward, Value(Dictionary{{"a", 1}}));
}

TEST(ValueTest, EqualityOfArraysRespectsOrder) {
  EXPECT_EQ(Value(Array{1, "a"}), Value(Array{true, "a"}));
  EXPECT_NE(Value(Array{1, "a"}), Value(Array{"a", 1}));
}

TEST(ValueTest, ACollectionKeepsNilAsTheNullMarker) {
  EXPECT_EQ(Value(Array{Value()}).array()->front(), Value::nullMarker());
  EXPECT_EQ(Value(Dictionary{{"k", Value()}})["k"], Value::nullMarker());
}

TEST(ValueTest, AKeyOfAnythingButADictionaryIsNil) {
  EXPECT_TRUE(Value("text")["key"].isNil());
  EXPECT_TRUE(Value()["key"].isNil());
  EXPECT_TRUE(Value(Dictionary{})["key"].isNil());
}

TEST(ValueTest, ContentIsReturnedOnlyAsItsExactType) {
  EXPECT_EQ(Value(true).boolean(), true);
  EXPECT_EQ(Value(true).integer(), std::nullopt);
  EXPECT_EQ(Value(7u).integer(), 7);
  EXPECT_EQ(Value("x").data(), nullptr);
  EXPECT_EQ(*Value(Data{1, 2}).data(), (Data{1, 2}));
}

TEST(ValueTest, ClassNamesAreThoseOfThePlatform) {
  EXPECT_EQ(className(Value("")), "NSString");
  EXPECT_EQ(className(Value(true)), "NSNumber");
  EXPECT_EQ(className(Value(1.5)), "NSNumber");
  EXPECT_EQ(className(Value(Data{})), "NSData");
  EXPECT_EQ(className(Value(Date{})), "NSDate");
  EXPECT_EQ(className(Value(Array{})), "NSArray");
  EXPECT_EQ(className(Value(Dictionary{})), "NSDictionary");
  EXPECT_EQ(className(Value::nullMarker()), "NSNull");
  EXPECT_EQ(className(Value()), "");
}

class Proxy final : public RemoteObject {
 public:
  std::string_view className() const override { return "Proxy"; }
  bool conformsToProtocol(std::string_view name) const override { return name == "P"; }
};

TEST(ValueTest, RemoteObjectsAreEqualByIdentity) {
  const auto one = std::make_shared<const Proxy>();
  EXPECT_EQ(Value(one), Value(one));
  EXPECT_NE(Value(one), Value(std::make_shared<const Proxy>()));
  EXPECT_EQ(className(Value(one)), "Proxy");
  EXPECT_TRUE(Value(std::shared_ptr<const RemoteObject>()).isNil());
}

std::vector<std::string> keys(const Dictionary& dictionary) {
  std::vector<std::string> keys;
  for (const auto& [key, value] : dictionary) keys.push_back(key);
  return keys;
}

TEST(DictionaryTest, KeepsTheOrderOfInsertionAlsoOnReplacement) {
  Dictionary dictionary{{"z", 1}, {"a", 2}, {"m", 3}};
  dictionary.set("a", "new");
  EXPECT_EQ(keys(dictionary), (std::vector<std::string>{"z", "a", "m"}));
  EXPECT_EQ(dictionary["a"], Value("new"));
}

TEST(DictionaryTest, FindsEveryKeyBelowAndAboveTheScanLimit) {
  for (const int size : {0, 1, 8, 9, 10, 1000}) {
    Dictionary dictionary;
    for (int i = 0; i < size; ++i) dictionary.set("key" + std::to_string(i), i);
    ASSERT_EQ(dictionary.size(), static_cast<std::size_t>(size));
    for (int i = 0; i < size; ++i) {
      ASSERT_EQ(dictionary["key" + std::to_string(i)], Value(i)) << size;
    }
    EXPECT_TRUE(dictionary["key" + std::to_string(size)].isNil());
    EXPECT_FALSE(dictionary.contains("absent"));
  }
}

TEST(DictionaryTest, RemovingAKeyKeepsTheOrderOfTheOthers) {
  Dictionary dictionary;
  for (int i = 0; i < 20; ++i) dictionary.set("key" + std::to_string(i), i);
  for (int i = 0; i < 20; i += 2) EXPECT_TRUE(dictionary.remove("key" + std::to_string(i)));
  EXPECT_FALSE(dictionary.remove("key0"));
  EXPECT_EQ(dictionary.size(), 10u);
  for (int i = 1; i < 20; i += 2) EXPECT_EQ(dictionary["key" + std::to_string(i)], Value(i));
  EXPECT_EQ(keys(dictionary).front(), "key1");
  EXPECT_EQ(keys(dictionary).back(), "key19");
}

TEST(DictionaryTest, ACopyIsIndependentAndAMovedFromOneIsEmpty) {
  Dictionary dictionary;
  for (int i = 0; i < 20; ++i) dictionary.set("key" + std::to_string(i), i);
  Dictionary copy = dictionary;
  copy.set("key3", "changed");
  EXPECT_EQ(dictionary["key3"], Value(3));
  const Dictionary moved = std::move(copy);
  EXPECT_EQ(moved["key3"], Value("changed"));
}

}  // namespace
}  // namespace platform
