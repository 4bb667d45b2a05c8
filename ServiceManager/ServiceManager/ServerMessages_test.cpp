#include "ServiceManager/ServiceManager/ServerMessages.h"

#include <functional>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

namespace {

using namespace platform;
using testing::ElementsAre;

ServerMessage messageWith(const Array& arguments) {
  return {"ORBServiceManager", "pidForService:", arguments};
}

void expectRefusal(const MessageResult& result, const char* reason) {
  EXPECT_EQ(result, MessageResult(raised(kNSInvalidArgumentException, reason)));
}

TEST(ServerMessagesTest, TheArgumentIsTheFirst) {
  EXPECT_EQ(messageWith({"a", "b"}).argument(), Value("a"));
  EXPECT_TRUE(messageWith({}).argument().isNil());
}

// The answer to a message with these arguments, if `method` answers its label.
MessageResult answerOf(const Array& arguments, const std::function<Value(Label)>& method) {
  MessageResult answer = raised(kNSPortTimeoutException, "no answer");
  messageWith(arguments).withLabel(
      MessageReply([&](MessageResult result) { answer = std::move(result); }),
      [&](Label label, MessageReply reply) { reply.answer(method(label)); });
  return answer;
}

TEST(ServerMessagesTest, AMethodIsCalledWithALabelOrNil) {
  std::vector<std::optional<std::string>> labels;
  const auto method = [&](Label label) {
    labels.push_back(label ? std::optional<std::string>(*label) : std::nullopt);
    return Value(static_cast<int>(labels.size()));
  };
  EXPECT_EQ(answerOf({"agent"}, method), MessageResult(1));
  EXPECT_EQ(answerOf({""}, method), MessageResult(2));
  EXPECT_EQ(answerOf({Value()}, method), MessageResult(3));
  EXPECT_EQ(answerOf({}, method), MessageResult(4));
  EXPECT_THAT(labels, ElementsAre("agent", "", std::nullopt, std::nullopt));
}

TEST(ServerMessagesTest, AMethodIsCalledWithAnArrayOfAnything) {
  Array labels;
  const auto method = [&](const Array& given) {
    labels = given;
    return Value(true);
  };
  EXPECT_EQ(messageWith({Value(Array{"agent", 5})}).withLabels(method), MessageResult(true));
  EXPECT_THAT(labels, ElementsAre(Value("agent"), Value(5)));
}

TEST(ServerMessagesTest, AnythingElseInPlaceOfALabelIsRefused) {
  const auto refused = [](Value argument) {
    return answerOf({std::move(argument)}, [](Label) -> Value {
      ADD_FAILURE() << "the method was called";
      return {};
    });
  };
  expectRefusal(refused(5), "-[ORBServiceManager pidForService:]: expected a label, got NSNumber");
  expectRefusal(refused(Array{"agent"}),
                "-[ORBServiceManager pidForService:]: expected a label, got NSArray");
  expectRefusal(refused(Value::nullMarker()),
                "-[ORBServiceManager pidForService:]: expected a label, got NSNull");
}

TEST(ServerMessagesTest, AnythingElseInPlaceOfAnArrayIsRefused) {
  const auto refused = [](const Array& arguments) {
    return ServerMessage{"Installer", "shutdownServices:", arguments}.withLabels(
        [](const Array&) -> Value {
          ADD_FAILURE() << "the method was called";
          return {};
        });
  };
  expectRefusal(refused({"agent"}),
                "-[Installer shutdownServices:]: expected an array of labels, got NSString");
  expectRefusal(refused({Dictionary()}),
                "-[Installer shutdownServices:]: expected an array of labels, got NSDictionary");
  expectRefusal(refused({Value()}),
                "-[Installer shutdownServices:]: expected an array of labels, got nil");
  expectRefusal(refused({}),
                "-[Installer shutdownServices:]: expected an array of labels, got nil");
}

TEST(ServerMessagesTest, ARefusalSaysWhatWasExpected) {
  expectRefusal(messageWith({true}).invalidArgument("a client"),
                "-[ORBServiceManager pidForService:]: expected a client, got NSNumber");
  expectRefusal(messageWith({}).invalidArgument("a client"),
                "-[ORBServiceManager pidForService:]: expected a client, got nil");
}

TEST(ServerMessagesTest, AnUnknownSelectorIsNamed) {
  expectRefusal(messageWith({}).unrecognizedSelector(),
                "-[ORBServiceManager pidForService:]: unrecognized selector sent to instance");
}

}  // namespace
