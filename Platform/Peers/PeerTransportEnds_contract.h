#pragma once

// Contract of names, connecting, and the ends of connections.

#include <cerrno>
#include <cstddef>
#include <string>

#include "Platform/Peers/PeerTransportFixture_contract.h"

namespace platform {

TEST_P(PeerTransportContract, ANameIsTakenOnce) {
  listen();
  const auto second = harness_->here().listen(path(), {}, [](auto) {});
  ASSERT_FALSE(second);
  EXPECT_EQ(second.error().code, ErrorCode::kDenied);
  EXPECT_EQ(second.error().osError, EADDRINUSE);
  EXPECT_THAT(describe(second.error()), testing::HasSubstr(path()));
  client_ = connect();
  EXPECT_EQ(call("echo:", {Value("still there")}), MessageResult("still there"));
}

TEST_P(PeerTransportContract, AReleasedNameCanBeTakenAgain) {
  start();
  harness_->there([this](PeerTransport&) { server_.listener.reset(); });
  const auto gone = harness_->here().connect(path(), {});
  ASSERT_FALSE(gone);
  EXPECT_EQ(gone.error().kind, PeerConnectFailure::Kind::kNobodyThere);
  listen();
  EXPECT_EQ(call("echo:", {Value("old")}), MessageResult("old"));
  client_ = connect();
  EXPECT_EQ(call("echo:", {Value("new")}), MessageResult("new"));
}

TEST_P(PeerTransportContract, ConnectingToAMissingNameFails) {
  const auto connection = harness_->here().connect(path(), {});
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().kind, PeerConnectFailure::Kind::kNobodyThere);
  EXPECT_THAT(describe(connection.error().error), testing::HasSubstr(path()));
}

TEST_P(PeerTransportContract, ConnectingToAHungProcessTimesOut) {
  listen();
  harness_->hang();
  const auto connection = harness_->here().connect(path(), {.timeout = 20ms});
  harness_->goOn();
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().kind, PeerConnectFailure::Kind::kTimedOut);
}

TEST_P(PeerTransportContract, EachSideHasTheKernelsCredentialsOfTheOther) {
  start();
  EXPECT_GT(client_->peer().process, 0);
  EXPECT_EQ(client_->peerState(), PeerState::kUnchanged);
  settle();
  PeerCredentials seen;
  harness_->there([&](PeerTransport&) { seen = server_.connections.front()->peer(); });
  EXPECT_GT(seen.process, 0);
  EXPECT_EQ(seen.user, client_->peer().user);
}

TEST_P(PeerTransportContract, TheEndOfThePeerIsReportedOnce) {
  start();
  noteDeath(*client_);
  settle();
  harness_->there([this](PeerTransport&) { server_.connections.clear(); });
  runUntilNoted("death");
  EXPECT_EQ(client_->peerState(), PeerState::kEnded);
  harness_->loop().post([this] { journal_.note("later"); });
  runUntilNoted("later");
  EXPECT_EQ(journal_.count("death"), 1u);
}

TEST_P(PeerTransportContract, TheEndOfAClientIsReportedToTheServer) {
  start();
  settle();
  client_.reset();
  runUntilNoted("client died");
  EXPECT_EQ(journal_.count("client died"), 1u);
}

TEST_P(PeerTransportContract, ADeathBeforeAHandlerIsSetIsReported) {
  start();
  settle();
  harness_->there([this](PeerTransport&) { server_.connections.clear(); });
  // The peer's own loop delivers the end; a call fails at once.
  EXPECT_EQ(call("echo:", {Value(1)}).error().name, kNSInvalidSendPortException);
  harness_->loop().post([this] { journal_.note("turn"); });
  runUntilNoted("turn");
  noteDeath(*client_);
  EXPECT_EQ(journal_.count("death"), 0u);
  runUntilNoted("death");
}

TEST_P(PeerTransportContract, PendingCallsFailBeforeTheDeathIsReported) {
  start();
  noteDeath(*client_);
  for (int i = 0; i < 3; ++i) {
    client_->callAsync("keep", {}, Duration::max(), [&](const MessageResult& result) {
      journal_.note(result ? "answered" : result.error().name);
    });
  }
  runUntilNoted("kept", 3);
  harness_->there([this](PeerTransport&) { server_.connections.clear(); });
  runUntilNoted("death");
  const Log entries = journal_.entries();
  const std::string gone = kNSInvalidSendPortException;
  EXPECT_EQ(Log(entries.end() - 4, entries.end()), (Log{gone, gone, gone, "death"}));
}

TEST_P(PeerTransportContract, TheServersPendingCallsFailWithTheClient) {
  start();
  client_->setHandlers({.message = [this](PeerMessage) { client_.reset(); }, .death = {}});
  ASSERT_TRUE(client_->send("relay:", {Value("text")}));
  runUntilNoted("client died");
  EXPECT_EQ(journal_.entries(),
            (Log{"connected", "relay:text", "relayed " + std::string(kNSInvalidSendPortException),
                 "client died"}));
}

TEST_P(PeerTransportContract, ABlockingCallFailsWithThePeer) {
  start();
  noteDeath(*client_);
  const MessageResult answer = call("closeHere");
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().name, kNSInvalidSendPortException);
  EXPECT_EQ(journal_.count("death"), 0u);
  runUntilNoted("death");
  EXPECT_EQ(call("echo:", {Value(1)}).error().name, kNSInvalidSendPortException);
  EXPECT_EQ(client_->send("note:", {Value(1)}).error().code, ErrorCode::kNotFound);
}

TEST_P(PeerTransportContract, MessagesBeforeTheEndArriveBeforeIt) {
  start();
  for (int i = 0; i < 3; ++i) ASSERT_TRUE(client_->send("note:", {Value("last words")}));
  client_.reset();
  runUntilNoted("client died");
  EXPECT_EQ(journal_.entries(), (Log{"connected", "note:last words", "note:last words",
                                     "note:last words", "client died"}));
}

// More than are delivered at once.
TEST_P(PeerTransportContract, ManyMessagesBeforeTheEndArriveBeforeIt) {
  start();
  constexpr std::size_t kMessages = 100;
  for (std::size_t i = 0; i < kMessages; ++i) ASSERT_TRUE(client_->send("note:", {Value("last")}));
  client_.reset();
  runUntilNoted("client died");
  EXPECT_EQ(journal_.count("note:last"), kMessages);
  EXPECT_EQ(journal_.entries().back(), "client died");
}

TEST_P(PeerTransportContract, AfterCloseNoCallbackRuns) {
  start();
  noteDeath(*client_);
  client_->callAsync("keep", {}, Duration::max(),
                     [&](const MessageResult&) { journal_.note("completed"); });
  runUntilNoted("kept");
  client_->close();
  runUntilNoted("client died");
  harness_->loop().post([this] { journal_.note("later"); });
  runUntilNoted("later");
  EXPECT_EQ(journal_.count("death"), 0u);
  EXPECT_EQ(journal_.count("completed"), 0u);
}

TEST_P(PeerTransportContract, AHandlerMayDestroyItsConnection) {
  start();
  noteDeath(*client_);
  client_->setHandlers({.message = [this](PeerMessage) { client_.reset(); }, .death = {}});
  EXPECT_EQ(call("callBack:", {Value("text")}).error().name, kNSInvalidSendPortException);
  EXPECT_EQ(client_, nullptr);
  runUntilNoted("client died");
}

TEST_P(PeerTransportContract, ACompletionAndADeathHandlerMayDestroyTheConnection) {
  start();
  client_->callAsync("echo:", {Value(1)}, 60s, [this](const MessageResult&) {
    client_.reset();
    journal_.note("destroyed");
  });
  runUntilNoted("destroyed");
  client_ = connect();
  for (int i = 0; i < 2; ++i) {
    client_->callAsync("keep", {}, 60s, [this](const MessageResult&) {
      client_.reset();
      journal_.note("destroyed by failure");
    });
  }
  runUntilNoted("kept", 2);
  harness_->there([this](PeerTransport&) { server_.connections.clear(); });
  runUntilNoted("destroyed by failure");
  client_ = connect();
  client_->setHandlers({.message = {}, .death = [this](const Error&) {
                          client_.reset();
                          journal_.note("destroyed by death");
                        }});
  settle();
  harness_->there([this](PeerTransport&) { server_.connections.clear(); });
  runUntilNoted("destroyed by death");
  EXPECT_EQ(journal_.count("destroyed by failure"), 1u);
}

TEST_P(PeerTransportContract, AReplyOutlivesItsConnection) {
  start();
  client_->callAsync("keep", {}, 60s, [](const MessageResult&) {});
  runUntilNoted("kept");
  client_.reset();
  runUntilNoted("client died");
  harness_->there([this](PeerTransport&) {
    server_.connections.clear();
    const auto answered = server_.kept.front()->answer(Value(1));
    ASSERT_FALSE(answered);
    EXPECT_EQ(answered.error().code, ErrorCode::kNotFound);
  });
}

}  // namespace platform
