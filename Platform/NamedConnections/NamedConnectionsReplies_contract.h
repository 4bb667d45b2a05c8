#pragma once

// Contract for answers that come later, and for messages that do not wait.

#include "Platform/NamedConnections/NamedConnectionsFixture_contract.h"

namespace platform {

class NamedConnectionsRepliesContract : public NamedConnectionsContract {
 protected:
  // Sends deferred requests and waits until the server has them.
  void defer(std::initializer_list<const char*> texts) {
    for (const char* text : texts) sendLater("defer:", {Value(text)});
    deferred_ += texts.size();
    runUntilNoted("deferred", deferred_);
  }
  void answerDeferred() {
    there([this](ConnectedProgram&) { server_.object.answerDeferred(); });
  }

 private:
  std::size_t deferred_ = 0;
};

TEST_P(NamedConnectionsRepliesContract, TheServerGoesOnBeforeItAnswers) {
  start();
  const auto first = root_;
  defer({"late"});
  EXPECT_EQ(send("echo:", {Value("same client")}), MessageResult(Value("same client")));
  const auto connection = client_;
  connect();
  EXPECT_EQ(send("echo:", {Value("other client")}), MessageResult(Value("other client")));
  EXPECT_EQ(journal_.entries(), Log{"deferred"});
  answerDeferred();
  runUntilNoted("late");
}

TEST_P(NamedConnectionsRepliesContract, AnswersMayComeInAnyOrder) {
  start();
  defer({"one", "two", "three"});
  EXPECT_EQ(root_->messagesUnderWay(), 3u);
  answerDeferred();
  runUntilNoted("one");
  EXPECT_EQ(root_->messagesUnderWay(), 0u);
  EXPECT_EQ(journal_.entries(), (Log{"deferred", "deferred", "deferred", "three", "two", "one"}));
}

TEST_P(NamedConnectionsRepliesContract, AWaitingClientGetsALateAnswer) {
  start();
  harness_->thereWhileWeWait([this] { return server_.object.answerDeferred(); });
  EXPECT_EQ(send("defer:", {Value("late")}), MessageResult(Value("late")));
}

TEST_P(NamedConnectionsRepliesContract, ADroppedReplyIsAnException) {
  start();
  defer({"never"});
  there([this](ConnectedProgram&) { server_.object.dropDeferred(); });
  runUntilNoted(kNSInvalidSendPortException);
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsRepliesContract, AnAnswerAfterTheEndOfItsConnectionIsDropped) {
  start();
  defer({"in vain"});
  client_->invalidate();
  EXPECT_EQ(journal_.count(kNSInvalidSendPortException), 1u);
  runUntil([this] { return children() == 0; });
  answerDeferred();
  connect();
  EXPECT_TRUE(send("nothing"));
  EXPECT_EQ(journal_.count("in vain"), 0u);
}

TEST_P(NamedConnectionsRepliesContract, ALateAnswerMayBeAReference) {
  start();
  TestCallback callback(journal_);
  there([&](ConnectedProgram&) {
    server_.object.setObject(std::make_shared<NSProtocolChecker>(&callback, &kCallbackProtocol));
  });
  std::shared_ptr<const NSProxy> proxy;
  root_->sendMessageAsync("defer:", {Value("object")},
                          MessageReply([&](const MessageResult& result) {
                            proxy = result ? proxyIn(*result) : nullptr;
                            journal_.note("answered");
                          }));
  runUntilNoted("deferred");
  answerDeferred();
  runUntilNoted("answered");
  ASSERT_TRUE(proxy);
  EXPECT_EQ(proxy->sendMessage("called:", {Value("there")}), MessageResult(Value("answer")));
  there([&](ConnectedProgram&) { server_.object.setObject(nullptr); });
}

TEST_P(NamedConnectionsRepliesContract, ThePendingRequestsOfAPeerAreLimited) {
  start();
  for (std::size_t i = 0; i < kMaxPeerCallsAwaitingReply; ++i) sendLater("defer:", {Value("some")});
  runUntilNoted("deferred", kMaxPeerCallsAwaitingReply);
  EXPECT_EQ(exceptionOf(send("nothing")), kNSInvalidArgumentException);
  sendLater("nothing");
  runUntilNoted(kNSInvalidArgumentException);
  answerDeferred();
  runUntilNoted("some", kMaxPeerCallsAwaitingReply);
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsRepliesContract, AMessageThatDoesNotWaitTimesOut) {
  start();
  client_->setReplyTimeout(20ms);
  defer({"late"});
  runUntilNoted(kNSPortTimeoutException);
  answerDeferred();
  EXPECT_TRUE(send("nothing"));
  EXPECT_EQ(journal_.count("late"), 0u);
}

TEST_P(NamedConnectionsRepliesContract, AMessageOnAnEndedConnectionFailsAtOnce) {
  start();
  client_->invalidate();
  sendLater("nothing");
  EXPECT_EQ(journal_.entries(), Log{kNSInvalidSendPortException});
}

}  // namespace platform
