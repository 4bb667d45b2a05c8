#pragma once

// The contract of every XPC, on any transport. A test program instantiates it with a harness:
//   INSTANTIATE_TEST_SUITE_P(Fake, XPCContract, testing::Values(&makeFakeXPCHarness));

#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "Platform/XPC/XPCFixture_contract.h"

namespace platform {

TEST_P(XPCContract, AMessageIsAnswered) {
  start();
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value("text")}), Array{Value("text")});
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value(Dictionary{{"key", Array{1, 2.5, true}}})}),
            Array{Value(Dictionary{{"key", Array{1, 2.5, true}}})});
}

TEST_P(XPCContract, NilCanBeAnArgumentAndInAReply) {
  start();
  EXPECT_TRUE(call(*client_, "echo:withReply:", {Value()}).at(0).isNil());
  const Array pair = call(*client_, "pairWithReply:");
  ASSERT_EQ(pair.size(), 2u);
  EXPECT_EQ(pair[0], Value(true));
  EXPECT_TRUE(pair[1].isNil());
}

TEST_P(XPCContract, AOneWayMessageArrivesBeforeLaterMessages) {
  start();
  client_->sendMessage("note:", {Value("a")}, nullptr, nullptr);
  call(*client_, "echo:withReply:", {Value(1)});
  EXPECT_EQ(journal_.count("note a"), 1u);
}

TEST_P(XPCContract, ThePeerIsTheOneThatTheKernelNames) {
  start();
  call(*client_, "echo:withReply:", {Value(1)});
  ASSERT_EQ(delegate_->peers.size(), 1u);
  EXPECT_EQ(delegate_->peers[0].process, harness_->self().process);
  EXPECT_EQ(delegate_->peers[0].user, harness_->self().user);
  EXPECT_NE(client_->processIdentifier(), 0);
  EXPECT_NE(client_->effectiveUserIdentifier(), static_cast<std::uint32_t>(-1));
}

TEST_P(XPCContract, AConnectionThatTheDelegateRefusesIsInvalid) {
  delegate_->refuses = true;
  start();
  send(*client_, "echo:withReply:", {Value(1)});
  journal_.await("refused");
  harness_->await([&] { return journal_.count("error 4097") + journal_.count("error 4099") == 1; });
}

TEST_P(XPCContract, WithoutADelegateNoConnectionIsAccepted) {
  listen();
  delegate_.reset();
  client_ = connect();
  send(*client_, "echo:withReply:", {Value(1)});
  harness_->await([&] { return journal_.count("error 4097") + journal_.count("error 4099") == 1; });
}

TEST_P(XPCContract, AMessageOutsideTheInterfaceFailsHereAndThere) {
  start();
  send(*client_, "unknown");
  journal_.await("error 4101");
  using enum MethodDescription::Kind;
  const Protocol wider("Wider", {{"unknown:withReply:", kTwoWay}});
  const auto other = harness_->here().makeConnection(kService);
  other->setRemoteObjectInterface(&wider);
  other->resume();
  send(*other, "unknown:withReply:", {Value(1)});
  journal_.await("error 4101", 2);
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value(1)}), Array{Value(1)});
  other->invalidate();
}

TEST_P(XPCContract, AnUnsendableValueIsAnErrorAndTheConnectionStays) {
  start();
  send(*client_, "echo:withReply:", {Value("\xff")});
  journal_.await("error 4101");
  send(*client_, "echo:withReply:", {});
  journal_.await("error 4101", 2);
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value(1)}), Array{Value(1)});
}

TEST_P(XPCContract, AReplyMayComeLateAndFromAnyThread) {
  start();
  send(*client_, "keepWithReply:");
  journal_.await("kept");
  call(*client_, "echo:withReply:", {Value(1)});
  delegate_->object().takeKept()({Value("late")});
  journal_.await("reply", 2);
}

TEST_P(XPCContract, AReplyIsSentOnce) {
  start();
  send(*client_, "keepWithReply:");
  journal_.await("kept");
  XPCReply reply = delegate_->object().takeKept();
  reply({Value(1)});
  reply({Value(2)});
  journal_.await("reply");
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value(3)}), Array{Value(3)});
  EXPECT_EQ(journal_.count("reply"), 2u);
}

// A dropped reply gives its place back at once, or the 129th message would be refused.
TEST_P(XPCContract, ADroppedReplyFreesItsPlaceSilently) {
  start();
  for (std::size_t i = 1; i <= kMaxPeerCallsAwaitingReply - 1; ++i) {
    send(*client_, "dropWithReply:");
    journal_.await("dropped", i);
  }
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value(1)}), Array{Value(1)});
  const auto other = connect();
  send(*other, "dropWithReply:");
  journal_.await("dropped", kMaxPeerCallsAwaitingReply);
  EXPECT_EQ(journal_.count("reply"), 1u);
  EXPECT_EQ(journal_.count("error 4099"), 0u);
  other->invalidate();
  journal_.await("error 4099");
}

TEST_P(XPCContract, TheMessagesThatAwaitAReplyAreLimited) {
  start();
  for (std::size_t i = 0; i < kMaxPeerCallsAwaitingReply; ++i) send(*client_, "dropWithReply:");
  journal_.await("dropped", kMaxPeerCallsAwaitingReply);
  send(*client_, "echo:withReply:", {Value(1)});
  journal_.await("error 4101");
}

TEST_P(XPCContract, AClientConnectsToAnEndpoint) {
  const auto endpoint = listenAnonymously();
  ASSERT_TRUE(endpoint);
  EXPECT_EQ(anonymous_->endpoint(), endpoint);
  client_ = connect(endpoint);
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value("by endpoint")}), Array{Value("by endpoint")});
}

TEST_P(XPCContract, AnEndpointCanBeAnArgumentAndInAReply) {
  start();
  const auto endpoint = listenAnonymously();
  const Array echoed = call(*client_, "echo:withReply:", {Value(endpoint)});
  const auto returned = endpointIn(echoed.at(0));
  ASSERT_TRUE(returned);
  const auto second = connect(returned);
  EXPECT_EQ(call(*second, "echo:withReply:", {Value(2)}), Array{Value(2)});
  // Also inside a collection, and through the connection that it led to.
  const Array nested =
      call(*second, "echo:withReply:", {Value(Dictionary{{"endpoint", Value(returned)}})});
  const auto third = connect(endpointIn(nested.at(0)["endpoint"]));
  EXPECT_EQ(call(*third, "echo:withReply:", {Value(3)}), Array{Value(3)});
}

TEST_P(XPCContract, TheEndpointsOfAMessageAreLimited) {
  start();
  const Value endpoint(listenAnonymously());
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value(Array(kMaxPeerDescriptors, endpoint))})
                .at(0)
                .array()
                ->size(),
            kMaxPeerDescriptors);
  send(*client_, "echo:withReply:", {Value(Array(kMaxPeerDescriptors + 1, endpoint))});
  journal_.await("error 4101");
}

TEST_P(XPCContract, TheEndpointOfADeadOwnerFailsCleanly) {
  const auto endpoint = listenAnonymously();
  client_ = connect(endpoint);
  call(*client_, "echo:withReply:", {Value(1)});
  EXPECT_TRUE(endpoint->hasListener());
  anonymous_.reset();  // The objects of the process end before it.
  harness_->endThere();
  EXPECT_FALSE(endpoint->hasListener());
  journal_.await("invalid");
  const auto late = connect(endpoint);
  send(*late, "echo:withReply:", {Value(1)});
  journal_.await("error 4099");
  journal_.await("invalid", 2);
}

TEST_P(XPCContract, AnEndedListenerLeavesItsConnections) {
  const auto endpoint = listenAnonymously();
  client_ = connect(endpoint);
  call(*client_, "echo:withReply:", {Value(1)});
  anonymous_->invalidate();
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value(2)}), Array{Value(2)});
  const auto late = connect(endpoint);
  journal_.await("invalid");
}

TEST_P(XPCContract, AnEndedMachServiceInterruptsItsClientsAndIsFoundAgain) {
  start();
  send(*client_, "keepWithReply:");
  journal_.await("kept");
  delegate_->accepted.at(0).lock()->invalidate();
  journal_.await("error 4097");
  journal_.await("interrupted");
  EXPECT_EQ(journal_.count("invalid"), 0u);
  EXPECT_EQ(call(*client_, "echo:withReply:", {Value("again")}), Array{Value("again")});
  EXPECT_EQ(delegate_->peers.size(), 2u);
}

TEST_P(XPCContract, AnUnknownMachServiceIsInvalid) {
  client_ = connect();
  send(*client_, "echo:withReply:", {Value(1)});
  journal_.await("error 4099");
  journal_.await("invalid");
}

TEST_P(XPCContract, InvalidatingFailsPendingMessagesAndCallsTheHandlerOnce) {
  start();
  send(*client_, "keepWithReply:");
  journal_.await("kept");
  client_->invalidate();
  client_->invalidate();
  journal_.await("invalid");
  send(*client_, "echo:withReply:", {Value(1)});
  journal_.await("error 4099", 2);
  journal_.await("server side invalid");
  EXPECT_EQ(journal_.count("invalid"), 1u);
  // The caller no longer waits for that reply, which is no error.
  delegate_->object().takeKept()({Value(1)});
}

TEST_P(XPCContract, TheEndOfAnAcceptedConnectionIsReported) {
  start();
  call(*client_, "echo:withReply:", {Value(1)});
  client_.reset();
  journal_.await("server side invalid");
  EXPECT_EQ(journal_.count("object gone"), 0u);
  delegate_.reset();
  journal_.await("object gone");
}

TEST_P(XPCContract, ASuspendedConnectionDeliversNothingUntilItIsResumed) {
  start();
  expectHeldWhileSuspended();
}

// A connection that ends meanwhile ends after the decision, and then drops everything that was set.
TEST_P(XPCContract, AConnectionThatEndsDuringTheDecisionIsDropped) {
  delegate_->whileDeciding = [this] {
    client_->invalidate();
    journal_.await("invalid");
    std::ignore = listener_->endpoint();  // A turn of the loop that delivers the end.
    EXPECT_EQ(journal_.count("server side invalid"), 0u);
  };
  listen();
  client_ = prepare(harness_->here().makeConnection(kService));
  client_->resume();
  journal_.await("accepted");
  journal_.await("server side invalid");
  EXPECT_EQ(journal_.count("server side invalid"), 1u);
  delegate_.reset();
  journal_.await("object gone");
}

TEST_P(XPCContract, AnObjectThatServesAtOnceIsNotCalledWhileSuspended) {
  delegate_->servesAtOnce = true;
  start();
  expectHeldWhileSuspended();
}

TEST_P(XPCContract, MessagesServedAtOnceFollowTheHeldOnes) {
  constexpr std::size_t kEach = NSXPCConnection::kMaxWaitingMessages / 2 - 1;
  delegate_->servesAtOnce = true;
  start();
  call(*client_, "echo:withReply:", {Value(1)});
  const auto serverSide = delegate_->accepted.at(0).lock();
  std::vector<std::string> sent;
  const auto sendNotes = [&] {
    for (std::size_t i = 0; i < kEach; ++i) {
      const std::string text = std::to_string(sent.size());
      sent.push_back("note " + text);
      client_->sendMessage("note:", {Value(text)}, nullptr, nullptr);
    }
  };
  serverSide->suspend();
  sendNotes();
  const auto other = connect();
  call(*other, "echo:withReply:", {Value(2)});
  sendNotes();
  serverSide->resume();
  journal_.await(sent.back());
  std::vector<std::string> notes = journal_.entries();
  std::erase_if(notes, [](const std::string& entry) { return !entry.starts_with("note "); });
  EXPECT_EQ(notes, sent);
}

TEST_P(XPCContract, ASuspendedListenerHoldsConnectionsUntilItIsResumed) {
  listen();
  listener_->suspend();
  client_ = connect();
  send(*client_, "echo:withReply:", {Value(1)});
  EXPECT_EQ(journal_.count("accepted"), 0u);
  listener_->resume();
  journal_.await("reply");
}

TEST_P(XPCContract, AMessageBeforeAResumeIsSentThen) {
  listen();
  client_ = prepare(harness_->here().makeConnection(kService));
  send(*client_, "echo:withReply:", {Value("early")});
  const auto other = connect();
  call(*other, "echo:withReply:", {Value(1)});
  EXPECT_EQ(journal_.count("accepted"), 1u);
  client_->resume();
  journal_.await("reply", 2);
}

// A caller without an answer can't know when to continue.
// A caller may drop its connection before the message has been sent.
TEST_P(XPCContract, AnInterfaceOfTheInvalidationHandlerOutlivesTheMessages) {
  listen();
  std::shared_ptr<const Protocol> interface(new Protocol(xpcTestProtocol()),
                                            [this](const Protocol* protocol) {
                                              delete protocol;
                                              journal_.note("interface gone");
                                            });
  std::shared_ptr<void> message(nullptr, [this](void*) { journal_.note("message gone"); });
  auto connection = harness_->here().makeConnection(kService);
  connection->setRemoteObjectInterface(interface.get());
  connection->setInvalidationHandler([interface = std::move(interface)] {});
  connection->resume();
  connection->sendMessage(
      "keepWithReply:", {}, [message](const Array&) {},
      [message = std::move(message)](const NSError&) {});
  connection.reset();
  journal_.await("interface gone");
  EXPECT_EQ(journal_.count("message gone"), 1u);
}

TEST_P(XPCContract, AMessageBehindALargeOneWaitsWithIt) {
  start();
  call(*client_, "echo:withReply:", {Value(1)});
  const auto serverSide = delegate_->accepted.at(0).lock();
  serverSide->suspend();
  send(*client_, "dropWithReply:");
  send(*client_, "echo:withReply:", {Value(Data(4 * kMaxPeerMessageBytes))});
  send(*client_, "echo:withReply:", {Value(2)});
  serverSide->resume();
  journal_.await("reply", 3);
  EXPECT_EQ(journal_.count("interrupted"), 0u);
}

// A peer that sends without end to a server that does not serve is disconnected; other peers are
// not.
TEST_P(XPCContract, TheMessagesThatWaitToBeServedAreLimited) {
  start();
  call(*client_, "echo:withReply:", {Value(1)});
  const auto serverSide = delegate_->accepted.at(0).lock();
  const auto other = connect();
  serverSide->suspend();
  for (std::size_t i = 0; i <= NSXPCConnection::kMaxWaitingMessages; ++i) {
    client_->sendMessage("note:", {Value("flood")}, nullptr, nullptr);
  }
  journal_.await("interrupted");
  EXPECT_EQ(journal_.count("note flood"), 0u);
  EXPECT_EQ(call(*other, "echo:withReply:", {Value(2)}), Array{Value(2)});
}

// The messages behind the one that broke the limit are on their way already.
TEST_P(XPCContract, AFloodBeyondThatLimitHarmsNobody) {
  start();
  call(*client_, "echo:withReply:", {Value(1)});
  const auto serverSide = delegate_->accepted.at(0).lock();
  const auto other = connect();
  serverSide->suspend();
  for (std::size_t i = 0; i < 4 * NSXPCConnection::kMaxWaitingMessages; ++i) {
    client_->sendMessage("note:", {Value("flood")}, nullptr, nullptr);
  }
  journal_.await("interrupted");
  EXPECT_EQ(call(*other, "echo:withReply:", {Value(2)}), Array{Value(2)});
}

}  // namespace platform
