#include "Platform/Messages/MessageReply.h"

#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace platform {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class MessageReplyTest : public testing::Test {
 protected:
  MessageReply reply() {
    return MessageReply([this](const MessageResult& result) {
      answers_.push_back(result ? *result->string() : result.error().reason);
    });
  }
  std::vector<std::string> answers_;
};

constexpr char kDropped[] = "The message was dropped without an answer.";

TEST_F(MessageReplyTest, OnlyTheFirstAnswerIsGiven) {
  {
    MessageReply once = reply();
    once.answer(Value("one"));
    once.answer(Value("two"));
    EXPECT_THAT(answers_, ElementsAre("one"));
  }
  EXPECT_THAT(answers_, ElementsAre("one"));
}

TEST_F(MessageReplyTest, ADroppedReplyRaises) {
  {
    const MessageReply dropped = reply();
  }
  EXPECT_THAT(answers_, ElementsAre(kDropped));
}

TEST_F(MessageReplyTest, AMovedReplyIsAnsweredByItsNewOwner) {
  MessageReply first = reply();
  MessageReply second(std::move(first));
  first.answer(Value("old"));  // NOLINT: it has been moved from.
  EXPECT_THAT(answers_, IsEmpty());
  second.answer(Value("new"));
  EXPECT_THAT(answers_, ElementsAre("new"));
}

TEST_F(MessageReplyTest, AReplyThatIsReplacedWasDropped) {
  MessageReply kept = reply();
  kept = reply();
  EXPECT_THAT(answers_, ElementsAre(kDropped));
  kept.answer(Value("second"));
  EXPECT_THAT(answers_, ElementsAre(kDropped, "second"));
}

TEST_F(MessageReplyTest, AnAnswerMayReplaceItsOwnReply) {
  MessageReply kept;
  kept = MessageReply([&](const MessageResult&) { kept = reply(); });
  kept.answer(Value("first"));
  kept.answer(Value("second"));
  EXPECT_THAT(answers_, ElementsAre("second"));
}

}  // namespace
}  // namespace platform
