#pragma once

// The contract of named connections on every transport. A test program derives a
// NamedConnectionsHarness and instantiates:
//   INSTANTIATE_TEST_SUITE_P(Fake, NamedConnectionsContract, testing::Values(&makeFakeHarness));

#include "Platform/NamedConnections/NamedConnectionsFixture_contract.h"
#include "Platform/NamedConnections/NamedConnectionsPeers_contract.h"
#include "Platform/NamedConnections/NamedConnectionsReferences_contract.h"
#include "Platform/NamedConnections/NamedConnectionsReplies_contract.h"

namespace platform {

TEST_P(NamedConnectionsContract, AMessageReachesTheRootObjectAndIsAnswered) {
  start();
  const Value value =
      Dictionary{{"text", "T\xC3\xA9xt"}, {"list", Array{true, 7, 1.5}}, {"data", Data{0, 255}}};
  EXPECT_EQ(send("echo:", {value}), MessageResult(value));
  EXPECT_EQ(send("nothing"), MessageResult(Value()));
}

TEST_P(NamedConnectionsContract, NilCanBeAnArgumentAndAResult) {
  start();
  const MessageResult result = send("echo:", {Value()});
  ASSERT_TRUE(result);
  EXPECT_TRUE(result->isNil());
}

TEST_P(NamedConnectionsContract, AnExceptionArrivesWithNameReasonAndUserInfo) {
  start();
  const Value info = Dictionary{{"key", 7}};
  EXPECT_EQ(send("raise:", {info}),
            MessageResult(std::unexpected(NSException{"SomeException", "some reason", info})));
  EXPECT_EQ(send("echo:", {Value(1)}), MessageResult(Value(1)));
}

TEST_P(NamedConnectionsContract, OneWayMessagesAreDeliveredInOrder) {
  start();
  for (const char* text : {"one", "two", "three"})
    EXPECT_EQ(send("note:", {Value(text)}), MessageResult(Value()));
  ASSERT_TRUE(send("nothing"));
  EXPECT_EQ(journal_.entries(), (Log{"one", "two", "three"}));
}

TEST_P(NamedConnectionsContract, ASelectorOutsideTheProtocolIsOnlyRefused) {
  start();
  const MessageResult result = send("hidden:", {Value(1)});
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().name, kNSInvalidArgumentException);
  EXPECT_EQ(result.error().reason, "-[NSProtocolChecker hidden:]: unrecognized selector");
  EXPECT_EQ(journal_.count("hidden"), 0u);
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsContract, AServerWithoutARootObjectAnswersWithAnException) {
  vend();
  there([this](ConnectedProgram&) { server_.connection->setRootObject(nullptr); });
  connect();
  EXPECT_EQ(exceptionOf(send("nothing")), kNSInvalidSendPortException);
}

TEST_P(NamedConnectionsContract, AnUnsendableValueIsRefusedBeforeItIsSent) {
  start();
  EXPECT_EQ(exceptionOf(send("echo:", {Value("\xFF")})), kNSInvalidArgumentException);
  EXPECT_EQ(exceptionOf(send("note:", {Value("\xFF")})), kNSInvalidArgumentException);
  EXPECT_EQ(exceptionOf(send("echo:")), kNSInvalidArgumentException);
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsContract, AnUnknownNameGivesNoConnection) {
  EXPECT_EQ(lookUp(), nullptr);
  EXPECT_EQ(here().connections.connectionWithRegisteredName(""), nullptr);
  EXPECT_TRUE(here().sink.texts().empty());
}

TEST_P(NamedConnectionsContract, OnlyThisMachineCanBeTheHost) {
  vend();
  EXPECT_NE(here().connections.connectionWithRegisteredName("server", ""), nullptr);
  EXPECT_NE(here().connections.connectionWithRegisteredName("server", "*"), nullptr);
  EXPECT_EQ(here().connections.connectionWithRegisteredName("server", "elsewhere"), nullptr);
}

TEST_P(NamedConnectionsContract, ATakenNameCannotBeRegistered) {
  vend();
  const auto late = here().connections.makeConnection();
  EXPECT_FALSE(late->registerName("server"));
  EXPECT_EQ(here().sink.count("The name \"server\" was not registered: "), 1u);
  EXPECT_EQ(here().sink.messages().front().ident, "NSConnection");
  connect();
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsContract, AConnectionHasOneName) {
  const auto connection = here().connections.makeConnection();
  EXPECT_TRUE(connection->registerName("one"));
  EXPECT_FALSE(connection->registerName("two"));
  EXPECT_TRUE(here().connections.makeConnection()->registerName("two"));
}

TEST_P(NamedConnectionsContract, AnEmptyNameAndAClientsConnectionRegisterNothing) {
  start();
  EXPECT_FALSE(here().connections.makeConnection()->registerName(""));
  EXPECT_FALSE(client_->registerName("another"));
}

TEST_P(NamedConnectionsContract, AnInvalidatedServerReleasesItsNameAndEndsItsChildren) {
  start();
  noteDeaths();
  there([this](ConnectedProgram&) {
    server_.connection->invalidate();
    EXPECT_FALSE(server_.connection->isValid());
    EXPECT_FALSE(server_.connection->registerName("another"));
  });
  runUntilNoted("death");
  EXPECT_EQ(lookUp(), nullptr);
  vend();
  connect();
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsContract, ADroppedServerEndsItsChildren) {
  start();
  noteDeaths();
  there([this](ConnectedProgram&) { server_.connection.reset(); });
  runUntilNoted("death");
  EXPECT_EQ(lookUp(), nullptr);
}

TEST_P(NamedConnectionsContract, ADeathIsPostedOnceOnBothSides) {
  start();
  noteDeaths();
  there([this](ConnectedProgram& there) {
    server_.observations.push_back(there.center.addObserver(
        kNSConnectionDidDieNotification, server_.connection->childConnections().front().get(),
        [this](const Notification&) { journal_.note("client died"); }));
  });
  client_->invalidate();
  client_->invalidate();
  EXPECT_EQ(journal_.count("death"), 1u);  // Before invalidate() returns.
  EXPECT_FALSE(client_->isValid());
  runUntilNoted("client died");
  EXPECT_EQ(children(), 0u);
  EXPECT_EQ(exceptionOf(send("nothing")), kNSInvalidSendPortException);
  EXPECT_EQ(exceptionOf(send("note:", {Value("late")})), kNSInvalidSendPortException);
  const auto root = client_->rootProxy();
  ASSERT_FALSE(root);
  EXPECT_EQ(root.error().name, kNSInvalidSendPortException);
  EXPECT_THAT(journal_.entries(), testing::UnorderedElementsAre("death", "client died"));
}

TEST_P(NamedConnectionsContract, AChildStartsWithItsParentsSettings) {
  vend();
  there([this](ConnectedProgram&) {
    server_.connection->setReplyTimeout(3s);
    server_.connection->setRequestTimeout(4s);
  });
  connect();
  ASSERT_TRUE(send("nothing"));
  there([this](ConnectedProgram&) {
    ASSERT_EQ(server_.connection->childConnections().size(), 1u);
    const NSConnection& child = *server_.connection->childConnections().front();
    EXPECT_EQ(child.replyTimeout(), 3s);
    EXPECT_EQ(child.requestTimeout(), 4s);
    EXPECT_EQ(child.delegate(), &server_.delegate);
    EXPECT_NE(child.peer(), nullptr);
    EXPECT_EQ(server_.connection->peer(), nullptr);
  });
}

TEST_P(NamedConnectionsContract, TheRootProxyStaysTheSameWhileItIsKept) {
  start();
  EXPECT_EQ(client_->rootProxy().value(), root_);
  EXPECT_TRUE(root_->conformsToProtocol("ServerProtocol"));
  EXPECT_FALSE(root_->conformsToProtocol("CallbackProtocol"));
  EXPECT_EQ(root_->connectionForProxy(), client_);
}

TEST_P(NamedConnectionsContract, AProxyKeepsItsConnection) {
  start();
  client_.reset();
  EXPECT_TRUE(send("nothing"));
}

TEST_P(NamedConnectionsContract, ALostClientDoesNotAffectAnother) {
  start();
  const auto other = std::exchange(client_, nullptr);
  const auto otherRoot = std::exchange(root_, nullptr);
  connect();
  other->invalidate();
  runUntil([this] { return children() == 1; });
  EXPECT_TRUE(send("nothing"));
}

}  // namespace platform
