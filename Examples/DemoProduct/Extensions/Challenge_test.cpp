#include "Challenge.h"

#include <string_view>

#include <gtest/gtest.h>

namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// From RFC 4231, test case 2.
TEST(ChallengeTest, TheAnswerIsTheHmacOfTheChallenge) {
  const auto answer = answerToChallenge(bytesOf("Jefe"), bytesOf("what do ya want for nothing?"));
  ASSERT_TRUE(answer);
  EXPECT_EQ(*answer,
            (vantor::Bytes{0x5b, 0xdc, 0xc1, 0x46, 0xbf, 0x60, 0x75, 0x4e, 0x6a, 0x04, 0x24,
                           0x26, 0x08, 0x95, 0x75, 0xc7, 0x5a, 0x00, 0x3f, 0x08, 0x9d, 0x27,
                           0x39, 0x83, 0x9d, 0xec, 0x58, 0xb9, 0x64, 0xec, 0x38, 0x43}));
}

TEST(ChallengeTest, AnotherSecretOrChallengeHasAnotherAnswer) {
  const auto answer = answerToChallenge(bytesOf("secret"), bytesOf("challenge"));
  EXPECT_NE(answer, answerToChallenge(bytesOf("secreu"), bytesOf("challenge")));
  EXPECT_NE(answer, answerToChallenge(bytesOf("secret"), bytesOf("challengf")));
  EXPECT_TRUE(answerToChallenge(bytesOf("secret"), {}));
}

}  // namespace
