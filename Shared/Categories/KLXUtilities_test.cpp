#include "Shared/Categories/KLXUtilities.h"

#include <string>
#include <vector>

#include <gtest/gtest.h>

namespace {

struct Receiver {
  std::vector<std::string> got;
};

class KLXUtilitiesTest : public testing::Test {
 protected:
  KLXUtilitiesTest() {
    methods_.add("take:", [](Receiver& receiver, const std::string& argument) {
      receiver.got.push_back(argument);
    });
  }

  KLXUtilities::Methods<Receiver, std::string> methods_;
  Receiver receiver_;
};

TEST_F(KLXUtilitiesTest, AMethodOfTheClassIsCalledOnceWithTheArgument) {
  EXPECT_TRUE(KLXUtilities::invokeSelector(methods_, "take:", &receiver_, std::string("x")));
  EXPECT_EQ(receiver_.got, std::vector<std::string>{"x"});
}

TEST_F(KLXUtilitiesTest, ASelectorThatTheClassDoesNotHaveCallsNothing) {
  for (const char* selector : {"", "take", "take::", "Take:", "other:", "take: "}) {
    EXPECT_FALSE(KLXUtilities::invokeSelector(methods_, selector, &receiver_, std::string("x")))
        << selector;
  }
  EXPECT_FALSE(KLXUtilities::invokeSelector(methods_, std::nullopt, &receiver_, std::string("x")));
  EXPECT_TRUE(receiver_.got.empty());
}

TEST_F(KLXUtilitiesTest, WithoutATargetNothingIsCalled) {
  EXPECT_FALSE(KLXUtilities::invokeSelector(methods_, "take:", static_cast<Receiver*>(nullptr),
                                            std::string("x")));
}

}  // namespace
