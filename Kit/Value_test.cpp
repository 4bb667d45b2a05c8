#include <cstdint>
#include <optional>
#include <string>

#include <gtest/gtest.h>
#include <vantor/Result.h>
#include <vantor/Value.h>

namespace vantor {
namespace {

TEST(KitValue, HasItsTypeAndItsContent) {
  EXPECT_TRUE(Value().isNil());
  EXPECT_EQ(Value(true).boolean(), true);
  EXPECT_EQ(Value(7).integer(), 7);
  EXPECT_EQ(Value(std::int64_t{1} << 40).integer(), std::int64_t{1} << 40);
  EXPECT_EQ(Value(1.5).real(), 1.5);
  EXPECT_EQ(Value("text").text(), "text");
  EXPECT_EQ(Value(std::string("text")).type(), Value::Type::kText);
  EXPECT_EQ(Value(Bytes{1, 2}).bytes(), (Bytes{1, 2}));
  EXPECT_EQ(Value(Array{1, "two"}).array()->size(), 2U);
  EXPECT_EQ(Value(Dictionary{{"key", 3}}).dictionary()->at("key"), Value(3));
}

TEST(KitValue, HasNoContentOfAnotherType) {
  EXPECT_EQ(Value(1).boolean(), std::nullopt);
  EXPECT_EQ(Value(true).integer(), std::nullopt);
  EXPECT_EQ(Value(1).real(), std::nullopt);
  EXPECT_EQ(Value(1).text(), std::nullopt);
  EXPECT_EQ(Value("text").bytes(), std::nullopt);
  EXPECT_EQ(Value("text").date(), std::nullopt);
  EXPECT_FALSE(Value().array());
  EXPECT_FALSE(Value(Array{}).dictionary());
}

TEST(KitValue, ANilInsideACollectionIsNil) {
  EXPECT_TRUE(Value(Array{Value()}).array()->front().isNil());
  EXPECT_TRUE(Value(Dictionary{{"key", Value()}}).dictionary()->at("key").isNil());
}

TEST(KitValue, NumbersAreEqualByValue) {
  EXPECT_EQ(Value(1), Value(1.0));
  EXPECT_EQ(Value(1), Value(true));
  EXPECT_NE(Value(1), Value("1"));
  EXPECT_NE(Value(), Value(0));
}

TEST(KitResult, HasAValueOrAnError) {
  const Result<int> value = 3;
  ASSERT_TRUE(value);
  EXPECT_EQ(*value, 3);
  const Result<int> failure = Error{ErrorCode::kTimedOut, "late"};
  ASSERT_FALSE(failure);
  EXPECT_EQ(failure.error().text, "late");
  EXPECT_TRUE(Result<void>());
  EXPECT_FALSE(Result<void>(Error{ErrorCode::kDenied, "no"}));
}

}  // namespace
}  // namespace vantor
