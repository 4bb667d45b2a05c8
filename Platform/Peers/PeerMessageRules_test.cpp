#include "Platform/Peers/PeerMessageRules.h"

#include <string>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Platform/Peers/PeerLimits.h"

namespace platform {
namespace {

TEST(PeerMessageRulesTest, AnErrorNamesThePlaceOfTheValue) {
  const Value bad = Array{Value(1), Value(Dictionary{{"key", Array{Value("\xc3")}}})};
  const auto bytes = peerBodyBytes(Array{Value("good"), bad});
  ASSERT_FALSE(bytes);
  EXPECT_EQ(bytes.error().code, ErrorCode::kInvalid);
  EXPECT_EQ(bytes.error().context, "value 2[1][\"key\"][0]: a text with NUL or that is not UTF-8");
}

TEST(PeerMessageRulesTest, ASelectorHasAnArgumentForEachColon) {
  EXPECT_TRUE(checkPeerSelector("evaluateServices", 0));
  EXPECT_TRUE(checkPeerSelector("job:status:", 2));
  EXPECT_TRUE(checkPeerSelector("x2::", 2));
  const auto wrong = checkPeerSelector("job:status:", 1);
  ASSERT_FALSE(wrong);
  EXPECT_EQ(wrong.error().context, "\"job:status:\" with 1 arguments instead of 2");
  for (const char* selector : {"", ":", "1a", "a_b", "a-b", "a b", "\xc3\xa4"}) {
    EXPECT_FALSE(checkPeerSelector(selector, 0)) << selector;
  }
}

TEST(PeerMessageRulesTest, TextsThatWouldAbortDBusAreRefused) {
  for (const std::string& text :
       {std::string("\xff"), std::string("\xc3"), std::string("\xc0\x80"),
        std::string("\xed\xa0\x80"), std::string("\xf4\x90\x80\x80"), std::string("a\0b", 3)}) {
    EXPECT_FALSE(peerBodyBytes(Array{Value(text)}));
    EXPECT_FALSE(peerBodyBytes(Array{Value(Dictionary{{text, 1}})}));
    EXPECT_FALSE(peerBodyBytes(NSException{text, "reason", {}}));
    EXPECT_FALSE(peerBodyBytes(NSException{"name", text, {}}));
    EXPECT_FALSE(peerBodyBytes(NSException{"name", "reason", Dictionary{{"key", text}}}));
  }
  EXPECT_TRUE(peerBodyBytes(Array{Value("\xef\xbf\xbf \xf4\x8f\xbf\xbf")}));
}

TEST(PeerMessageRulesTest, TheLengthOfAnExceptionsNameIsLimited) {
  const auto named = [](std::size_t length) {
    return peerBodyBytes(NSException{std::string(length, 'a'), "", {}}).has_value();
  };
  EXPECT_TRUE(named(kMaxPeerSelectorLength - 1));
  EXPECT_TRUE(named(kMaxPeerSelectorLength));
  EXPECT_FALSE(named(kMaxPeerSelectorLength + 1));
}

}  // namespace
}  // namespace platform
