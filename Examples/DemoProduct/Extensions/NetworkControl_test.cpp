#include "NetworkControl.h"

#include <algorithm>
#include <cerrno>

#include <gtest/gtest.h>

#include "Challenge.h"

namespace {

using vantor::Bytes;

class NetworkControlTest : public testing::Test {
 protected:
  // An error number, 0 for none.
  int write(std::uint32_t option, const Bytes& bytes) {
    return control_.setOption(option, bytes.data(), bytes.size());
  }
  int read(std::uint32_t option) { return control_.getOption(option, answer_); }

  const Bytes secretBytes_{1, 2, 3, 4, 5, 6, 7, 8};
  KeptSecret secret_;
  int secretsWritten_ = 0;
  NetworkControl control_{5, secret_, [this] { ++secretsWritten_; }};
  Bytes answer_;
};

TEST_F(NetworkControlTest, ReturnsItsVersion) {
  EXPECT_EQ(read(3), 0);
  EXPECT_EQ(answer_, (Bytes{5, 0, 0, 0}));
}

TEST_F(NetworkControlTest, AnswersAChallengeOnceItHasTheSecret) {
  EXPECT_EQ(read(kAnswerOption), ENOENT);
  EXPECT_EQ(write(kChallengeOption, {9, 9}), 0);
  EXPECT_EQ(read(kAnswerOption), ENOKEY);
  EXPECT_EQ(write(5, secretBytes_), 0);
  EXPECT_EQ(secretsWritten_, 1);
  EXPECT_EQ(read(kAnswerOption), 0);
  EXPECT_EQ(answer_, answerToChallenge(secretBytes_, Bytes{9, 9}).value());
  EXPECT_EQ(read(kAnswerOption), ENOENT);
}

TEST_F(NetworkControlTest, NoOptionReturnsTheSecret) {
  EXPECT_EQ(write(5, secretBytes_), 0);
  EXPECT_EQ(write(kChallengeOption, {1}), 0);
  for (std::uint32_t option = 0; option < 64; ++option) {
    if (read(option) != 0) continue;
    EXPECT_TRUE(std::ranges::search(answer_, secretBytes_).empty()) << option;
  }
}

TEST_F(NetworkControlTest, ASecretHasAMaximumLength) {
  EXPECT_EQ(write(5, {}), EINVAL);
  EXPECT_EQ(write(5, Bytes(KeptSecret::kMaxBytes - 1, 1)), 0);
  EXPECT_EQ(write(5, Bytes(KeptSecret::kMaxBytes, 2)), 0);
  EXPECT_EQ(write(5, Bytes(KeptSecret::kMaxBytes + 1, 3)), EINVAL);
  EXPECT_TRUE(std::ranges::equal(secret_.bytes(), Bytes(KeptSecret::kMaxBytes, 2)));
  EXPECT_EQ(secretsWritten_, 2);
}

TEST_F(NetworkControlTest, AChallengeHasAMaximumLength) {
  EXPECT_EQ(write(kChallengeOption, {}), EINVAL);
  EXPECT_EQ(write(kChallengeOption, Bytes(kMaxChallengeBytes - 1)), 0);
  EXPECT_EQ(write(kChallengeOption, Bytes(kMaxChallengeBytes)), 0);
  EXPECT_EQ(write(kChallengeOption, Bytes(kMaxChallengeBytes + 1)), EINVAL);
}

TEST_F(NetworkControlTest, OtherOptionsAreRefused) {
  EXPECT_EQ(read(5), ENOPROTOOPT);
  EXPECT_EQ(write(3, Bytes(4)), ENOPROTOOPT);
}

}  // namespace
