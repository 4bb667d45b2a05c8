#pragma once

// Contract of messages and their answers.

#include <string>

#include "Platform/Peers/PeerTransportFixture_contract.h"

namespace platform {

TEST_P(PeerTransportContract, ATwoWayMessageIsAnswered) {
  start();
  EXPECT_EQ(call("echo:", {Value("hello")}), MessageResult("hello"));
}

TEST_P(PeerTransportContract, ValuesOfEveryKindArriveUnchanged) {
  start();
  const Array values = {
      Value(true),
      Value(false),
      Value(std::int64_t{INT64_MIN}),
      Value(INT64_MAX),
      Value(0.1),
      Value(""),
      Value("\xc3\xa4 \xf0\x9f\x98\x80"),
      Value(Data{}),
      Value(Data{0, 255, 1}),
      Value(Date{-0.5}),
      Value::nullMarker(),
      Value(Array{}),
      Value(Array{Value(1), Value(Array{Value("inner")}), Value::nullMarker()}),
      Value(Dictionary{}),
      Value(Dictionary{{"", 1}, {"b", Dictionary{{"c", Data{7}}}}, {"a", false}}),
  };
  for (const Value& value : values) {
    const MessageResult answer = call("echo:", {value});
    ASSERT_TRUE(answer) << answer.error().reason;
    EXPECT_EQ(*answer, value);
    EXPECT_EQ(answer->type(), value.type());
  }
}

TEST_P(PeerTransportContract, DictionariesKeepTheirOrder) {
  start();
  Dictionary dictionary;
  for (const char* key : {"z", "a", "m", "b", "y"}) dictionary.set(key, key);
  const MessageResult answer = call("echo:", {dictionary});
  ASSERT_TRUE(answer && answer->dictionary());
  std::string keys;
  for (const auto& [key, value] : *answer->dictionary()) keys += key;
  EXPECT_EQ(keys, "zamby");
}

TEST_P(PeerTransportContract, NilCanBeAnArgumentAndAnAnswer) {
  start();
  const MessageResult answer = call("echo:", {Value()});
  ASSERT_TRUE(answer);
  EXPECT_TRUE(answer->isNil());
}

TEST_P(PeerTransportContract, AnExceptionArrivesWithReasonAndUserInfo) {
  start();
  const Value userInfo = Dictionary{{"key", Array{Value(1), Value("two")}}};
  const MessageResult answer = call("raise:", {userInfo});
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error(), (NSException{"SomeException", "Some reason", userInfo}));
  const MessageResult without = call("raise:", {Value()});
  ASSERT_FALSE(without);
  EXPECT_TRUE(without.error().userInfo.isNil());
}

TEST_P(PeerTransportContract, OneWayMessagesArriveInOrder) {
  start();
  for (const char* text : {"1", "2", "3"}) {
    ASSERT_TRUE(client_->send("note:", {Value(text)}));
  }
  ASSERT_TRUE(client_->send("done", {}));
  runUntilNoted("done");
  EXPECT_EQ(journal_.entries(), (Log{"connected", "note:1", "note:2", "note:3", "done"}));
}

TEST_P(PeerTransportContract, ACallArrivesAfterEarlierMessages) {
  start();
  ASSERT_TRUE(client_->send("note:", {Value("first")}));
  ASSERT_TRUE(call("echo:", {Value(1)}));
  EXPECT_EQ(journal_.entries(), (Log{"connected", "note:first"}));
}

TEST_P(PeerTransportContract, AnAsynchronousCallCompletesOnTheLoop) {
  start();
  bool returned = false;
  client_->callAsync("echo:", {Value("later")}, 60s, [&](const MessageResult& result) {
    EXPECT_TRUE(returned);
    EXPECT_EQ(result, MessageResult("later"));
    journal_.note("completed");
  });
  returned = true;
  runUntilNoted("completed");
  EXPECT_EQ(journal_.count("completed"), 1u);
}

TEST_P(PeerTransportContract, AnAsynchronousCallIsNotCompletedInsideABlockingOne) {
  start();
  client_->callAsync("echo:", {Value("later")}, 60s,
                     [&](const MessageResult&) { journal_.note("completed"); });
  EXPECT_TRUE(call("echo:", {Value(1)}));
  EXPECT_EQ(journal_.count("completed"), 0u);
  runUntilNoted("completed");
}

TEST_P(PeerTransportContract, ACallWithoutAnAnswerTimesOut) {
  start();
  const Instant before = harness_->loop().now();
  const MessageResult answer = call("keep", {}, 20ms);
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().name, kNSPortTimeoutException);
  EXPECT_GE(harness_->loop().now() - before, 20ms);
}

TEST_P(PeerTransportContract, AnAsynchronousCallWithoutAnAnswerTimesOut) {
  start();
  client_->callAsync("keep", {}, 20ms, [&](const MessageResult& result) {
    journal_.note(result ? "answered" : result.error().name);
  });
  runUntilNoted(kNSPortTimeoutException);
}

TEST_P(PeerTransportContract, AnAnswerThatArrivedWhileWeWereBusyIsInTime) {
  start();
  const auto other = connect();
  client_->callAsync("echo:", {Value("in time")}, 1ms, [this](const MessageResult& result) {
    journal_.note(result ? *result->string() : result.error().name);
  });
  // Here this process serves nothing. Afterwards the other one has answered: it serves its
  // connections in turn.
  EXPECT_FALSE(other->call("keep", {}, 5ms));
  for (int turn = 0; turn < 3; ++turn) EXPECT_TRUE(other->call("echo:", {Value(turn)}, 60s));
  harness_->runUntil([this] { return journal_.entries().back() != "kept"; });
  EXPECT_EQ(journal_.entries().back(), "in time");
}

TEST_P(PeerTransportContract, ALateAnswerIsDropped) {
  start();
  EXPECT_FALSE(call("keep", {}, 5ms));
  runUntilNoted("kept");
  harness_->there(
      [&](PeerTransport&) { EXPECT_TRUE(server_.kept.front()->answer(Value("late"))); });
  EXPECT_EQ(call("echo:", {Value("in time")}), MessageResult("in time"));
}

TEST_P(PeerTransportContract, ACallToAHungProcessTimesOut) {
  start();
  harness_->hang();
  const MessageResult answer = call("echo:", {Value(1)}, 20ms);
  harness_->goOn();
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().name, kNSPortTimeoutException);
}

TEST_P(PeerTransportContract, AMessageIsAnsweredOnce) {
  start();
  client_->callAsync("keep", {}, 60s, [&](const MessageResult& result) {
    EXPECT_EQ(result, MessageResult(1));
    journal_.note("completed");
  });
  runUntilNoted("kept");
  harness_->there([&](PeerTransport&) {
    EXPECT_TRUE(server_.kept.front()->answer(Value(1)));
    const auto again = server_.kept.front()->answer(Value(2));
    ASSERT_FALSE(again);
    EXPECT_EQ(again.error().code, ErrorCode::kInvalid);
  });
  runUntilNoted("completed");
  settle();
  EXPECT_EQ(journal_.count("completed"), 1u);
}

TEST_P(PeerTransportContract, AnUnsendableAnswerIsAnException) {
  start();
  struct Remote final : RemoteObject {
    std::string_view className() const override { return "Remote"; }
    bool conformsToProtocol(std::string_view) const override { return false; }
  };
  client_->callAsync("keep", {}, 60s, [&](const MessageResult& result) {
    ASSERT_FALSE(result);
    EXPECT_EQ(result.error().name, kNSInvalidArgumentException);
    journal_.note("completed");
  });
  runUntilNoted("kept");
  harness_->there([&](PeerTransport&) {
    const auto answered = server_.kept.front()->answer(
        Value(std::shared_ptr<const RemoteObject>(std::make_shared<Remote>())));
    ASSERT_FALSE(answered);
    EXPECT_EQ(answered.error().code, ErrorCode::kInvalid);
  });
  runUntilNoted("completed");
}

TEST_P(PeerTransportContract, AWaitingCallServesItsConnection) {
  start();
  client_->setHandlers({.message =
                            [&](PeerMessage message) {
                              EXPECT_EQ(message.selector, "called:");
                              EXPECT_TRUE(message.reply->answer(
                                  Value("re-entrant " + *message.arguments[0].string())));
                            },
                        .death = {}});
  EXPECT_EQ(call("callBack:", {Value("call")}), MessageResult("re-entrant call"));
}

TEST_P(PeerTransportContract, AHandlerInsideACallMayCall) {
  start({.whileWaiting = WhileWaiting::kServe});
  client_->setHandlers({.message =
                            [&](PeerMessage message) {
                              const MessageResult inner = call("echo:", message.arguments);
                              EXPECT_TRUE(message.reply->answer(inner));
                            },
                        .death = {}});
  EXPECT_EQ(call("callBack:", {Value("deep")}), MessageResult("deep"));
}

TEST_P(PeerTransportContract, WithoutServingMessagesWaitUntilTheAnswer) {
  listen();
  client_ = connect({.timeout = 60s, .whileWaiting = WhileWaiting::kServeNothing});
  bool calling = true;
  client_->setHandlers({.message =
                            [&](PeerMessage message) {
                              EXPECT_FALSE(calling);
                              EXPECT_TRUE(message.reply->answer(message.arguments[0]));
                            },
                        .death = {}});
  // The server calls back before it answers the second message.
  ASSERT_TRUE(client_->send("relay:", {Value("text")}));
  EXPECT_TRUE(call("echo:", {Value(1)}));
  calling = false;
  runUntilNoted("relayed text");
}

TEST_P(PeerTransportContract, WithoutAHandlerATwoWayMessageIsRefused) {
  start();
  ASSERT_TRUE(client_->send("relay:", {Value("text")}));
  runUntilNoted("relayed " + std::string(kNSInvalidArgumentException));
}

TEST_P(PeerTransportContract, AnInvalidMessageIsRefusedBeforeItIsSent) {
  start();
  for (const std::string& selector :
       {std::string("under_score"), std::string(), std::string("a b"), std::string("9digit"),
        std::string("\xc3\xa4"), std::string("nul\0", 4), std::string(256, 'a')}) {
    const MessageResult answer = call(selector, {});
    ASSERT_FALSE(answer);
    EXPECT_EQ(answer.error().name, kNSInvalidArgumentException);
    const auto sent = client_->send(selector, {});
    ASSERT_FALSE(sent);
    EXPECT_EQ(sent.error().code, ErrorCode::kInvalid);
  }
  EXPECT_FALSE(client_->send("one:", {}));
  EXPECT_FALSE(client_->send("none", {Value(1)}));
  EXPECT_FALSE(client_->send("text:", {Value("\xff")}));
  EXPECT_FALSE(client_->send("text:", {Value(std::string("a\0b", 3))}));
  EXPECT_FALSE(client_->send("key:", {Value(Dictionary{{"\xff", 1}})}));
  EXPECT_TRUE(call("echo:", {Value(1)}));
}

}  // namespace platform
