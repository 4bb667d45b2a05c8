#include "Platform/Messages/NSProtocolChecker.h"

#include <string>

#include <gtest/gtest.h>

namespace platform {
namespace {

const Protocol kProtocol("Greeting", {{"greet:"}, {"wave", MethodDescription::Kind::kOneWay}});

struct Target final : MessageReceiver {
  MessageResult receiveMessage(std::string_view selector, const Array& arguments) override {
    last = selector;
    return arguments.empty() ? Value() : arguments.front();
  }
  std::string last;
};

std::string reasonOf(const MessageResult& result) {
  if (result) return "no exception";
  EXPECT_EQ(result.error().name, kNSInvalidArgumentException);
  return result.error().reason;
}

TEST(NSProtocolCheckerTest, AMessageOfTheProtocolReachesTheTarget) {
  Target target;
  const NSProtocolChecker checker(&target, &kProtocol);
  EXPECT_EQ(checker.sendMessage("greet:", {Value("you")}), MessageResult(Value("you")));
  EXPECT_EQ(target.last, "greet:");
}

TEST(NSProtocolCheckerTest, ASelectorOutsideTheProtocolDoesNotReachTheTarget) {
  Target target;
  const NSProtocolChecker checker(&target, &kProtocol);
  for (const char* selector : {"greet", "greet::", "Greet:", "hide:", ""}) {
    EXPECT_EQ(reasonOf(checker.sendMessage(selector, {Value(1)})),
              "-[NSProtocolChecker " + std::string(selector) + "]: unrecognized selector");
  }
  EXPECT_EQ(target.last, "");
}

TEST(NSProtocolCheckerTest, TheNumberOfArgumentsMustFitTheSelector) {
  Target target;
  const NSProtocolChecker checker(&target, &kProtocol);
  EXPECT_EQ(reasonOf(checker.sendMessage("greet:", {})),
            "-[NSProtocolChecker greet:]: 0 arguments");
  EXPECT_EQ(reasonOf(checker.sendMessage("greet:", {1, 2})),
            "-[NSProtocolChecker greet:]: 2 arguments");
  EXPECT_EQ(target.last, "");
}

TEST(NSProtocolCheckerTest, AQuestionWithoutARightToAnAnswerIsDropped) {
  Target target;
  const NSProtocolChecker checker(&target, &kProtocol);
  checker.sendMessageAsync("greet:", {Value("you")}, {});
  EXPECT_EQ(target.last, "");
  checker.sendMessageAsync("wave", {}, {});
  EXPECT_EQ(target.last, "wave");
}

TEST(NSProtocolCheckerTest, WithoutATargetItOnlyDescribesTheProtocol) {
  const NSProtocolChecker checker(nullptr, &kProtocol);
  EXPECT_TRUE(checker.respondsToSelector("wave"));
  EXPECT_EQ(checker.methodSignatureForSelector("wave")->kind, MethodDescription::Kind::kOneWay);
  EXPECT_FALSE(checker.respondsToSelector("greet"));
  EXPECT_TRUE(checker.conformsToProtocol("Greeting"));
  EXPECT_FALSE(checker.conformsToProtocol("Farewell"));
  EXPECT_EQ(reasonOf(checker.sendMessage("wave", {})), "-[NSProtocolChecker wave]: no target");
}

TEST(NSProtocolCheckerTest, WithoutAProtocolItAdmitsNothing) {
  Target target;
  const NSProtocolChecker checker(&target, nullptr);
  EXPECT_FALSE(checker.respondsToSelector("wave"));
  EXPECT_FALSE(checker.conformsToProtocol("Greeting"));
  EXPECT_EQ(reasonOf(checker.sendMessage("wave", {})),
            "-[NSProtocolChecker wave]: unrecognized selector");
}

// An object that answers later.
struct LateTarget final : MessageTarget {
  void takeMessage(std::string_view, const Array&, MessageReply reply) override {
    kept = std::move(reply);
  }
  MessageReply kept;
};

TEST(NSProtocolCheckerTest, AnAnswerMayComeLater) {
  LateTarget target;
  const NSProtocolChecker checker(&target, &kProtocol);
  MessageResult answer = raised("NoneYet", "");
  checker.sendMessageAsync("greet:", {1},
                           MessageReply([&](MessageResult result) { answer = std::move(result); }));
  EXPECT_EQ(answer.error().name, "NoneYet");
  target.kept.answer(Value("late"));
  EXPECT_EQ(answer, MessageResult(Value("late")));
  target.kept.answer(Value("again"));
  EXPECT_EQ(answer, MessageResult(Value("late")));
}

TEST(NSProtocolCheckerTest, AMessageThatWaitsCannotWaitForALaterAnswer) {
  LateTarget target;
  const NSProtocolChecker checker(&target, &kProtocol);
  EXPECT_EQ(reasonOf(checker.sendMessage("greet:", {1})),
            "-[NSProtocolChecker greet:]: the answer comes later");
  target.kept.answer(Value("late"));
}

TEST(NSProtocolCheckerTest, ARefusedMessageIsAnsweredAtOnce) {
  LateTarget target;
  const NSProtocolChecker checker(&target, &kProtocol);
  std::string reason;
  checker.sendMessageAsync(
      "hide:", {1}, MessageReply([&](const MessageResult& result) { reason = reasonOf(result); }));
  EXPECT_EQ(reason, "-[NSProtocolChecker hide:]: unrecognized selector");
}

}  // namespace
}  // namespace platform
