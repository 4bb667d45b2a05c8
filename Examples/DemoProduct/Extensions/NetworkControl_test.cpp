#include "Examples/DemoProduct/Extensions/NetworkControl.h"

#include <algorithm>
#include <cerrno>

#include <gtest/gtest.h>

#include "Examples/DemoProduct/Extensions/Challenge.h"

namespace {

using platform::Data;

class NetworkControlTest : public testing::Test {
 protected:
  const Data secretBytes_{1, 2, 3, 4, 5, 6, 7, 8};
  KeptSecret secret_;
  int secretsWritten_ = 0;
  NetworkControl control_{5, secret_, [this] { ++secretsWritten_; }};
};

TEST_F(NetworkControlTest, ReturnsItsVersion) {
  EXPECT_EQ(control_.getOption(3).value(), (Data{5, 0, 0, 0}));
}

TEST_F(NetworkControlTest, AnswersAChallengeOnceItHasTheSecret) {
  EXPECT_EQ(control_.getOption(kAnswerOption).error().osError, ENOENT);
  ASSERT_TRUE(control_.setOption(kChallengeOption, Data{9, 9}));
  EXPECT_EQ(control_.getOption(kAnswerOption).error().osError, ENOKEY);
  ASSERT_TRUE(control_.setOption(5, secretBytes_));
  EXPECT_EQ(secretsWritten_, 1);
  EXPECT_EQ(control_.getOption(kAnswerOption).value(),
            answerToChallenge(secretBytes_, Data{9, 9}).value());
  EXPECT_EQ(control_.getOption(kAnswerOption).error().osError, ENOENT);
}

TEST_F(NetworkControlTest, NoOptionReturnsTheSecret) {
  ASSERT_TRUE(control_.setOption(5, secretBytes_));
  ASSERT_TRUE(control_.setOption(kChallengeOption, Data{1}));
  for (std::uint32_t option = 0; option < 64; ++option) {
    const auto answer = control_.getOption(option);
    if (!answer) continue;
    EXPECT_TRUE(std::ranges::search(*answer, secretBytes_).empty()) << option;
  }
}

TEST_F(NetworkControlTest, ASecretHasAMaximumLength) {
  EXPECT_FALSE(control_.setOption(5, {}));
  EXPECT_TRUE(control_.setOption(5, Data(KeptSecret::kMaxBytes - 1, 1)));
  EXPECT_TRUE(control_.setOption(5, Data(KeptSecret::kMaxBytes, 2)));
  EXPECT_FALSE(control_.setOption(5, Data(KeptSecret::kMaxBytes + 1, 3)));
  EXPECT_TRUE(std::ranges::equal(secret_.bytes(), Data(KeptSecret::kMaxBytes, 2)));
  EXPECT_EQ(secretsWritten_, 2);
}

TEST_F(NetworkControlTest, AChallengeHasAMaximumLength) {
  EXPECT_FALSE(control_.setOption(kChallengeOption, {}));
  EXPECT_TRUE(control_.setOption(kChallengeOption, Data(kMaxChallengeBytes - 1)));
  EXPECT_TRUE(control_.setOption(kChallengeOption, Data(kMaxChallengeBytes)));
  EXPECT_FALSE(control_.setOption(kChallengeOption, Data(kMaxChallengeBytes + 1)));
}

TEST_F(NetworkControlTest, OtherOptionsAreRefused) {
  EXPECT_EQ(control_.getOption(5).error().osError, ENOPROTOOPT);
  EXPECT_EQ(control_.setOption(3, Data(4)).error().osError, ENOPROTOOPT);
}

}  // namespace
