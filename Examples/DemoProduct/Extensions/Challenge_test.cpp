#include "Examples/DemoProduct/Extensions/Challenge.h"

#include <string_view>

#include <gtest/gtest.h>

#include "Platform/Digests/Digest.h"

namespace {

std::span<const std::uint8_t> bytesOf(std::string_view text) {
  return {reinterpret_cast<const std::uint8_t*>(text.data()), text.size()};
}

// From RFC 4231, test case 2.
TEST(ChallengeTest, TheAnswerIsTheHmacOfTheChallenge) {
  const auto answer = answerToChallenge(bytesOf("Jefe"), bytesOf("what do ya want for nothing?"));
  ASSERT_TRUE(answer);
  EXPECT_EQ(platform::hexadecimalText(*answer),
            "5bdcc146bf60754e6a042426089575c75a003f089d2739839dec58b964ec3843");
}

TEST(ChallengeTest, AnotherSecretOrChallengeHasAnotherAnswer) {
  const auto answer = answerToChallenge(bytesOf("secret"), bytesOf("challenge"));
  EXPECT_NE(answer, answerToChallenge(bytesOf("secreu"), bytesOf("challenge")));
  EXPECT_NE(answer, answerToChallenge(bytesOf("secret"), bytesOf("challengf")));
  EXPECT_TRUE(answerToChallenge(bytesOf("secret"), {}));
}

}  // namespace
