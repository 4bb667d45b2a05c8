#pragma once

// Contract of the limits of messages and peers.

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "Platform/Peers/PeerLimits.h"
#include "Platform/Peers/PeerTransportFixture_contract.h"

namespace platform {

inline Value nestedArrays(std::size_t depth) {
  Value value(1);
  for (std::size_t i = 0; i < depth; ++i) {
    value = i % 2 == 0 ? Value(Array{value}) : Value(Dictionary{{"key", value}});
  }
  return value;
}

TEST_P(PeerTransportContract, TheDepthOfValuesIsLimited) {
  start();
  for (const std::size_t depth : {kMaxPeerDepth - 1, kMaxPeerDepth}) {
    EXPECT_EQ(call("echo:", {nestedArrays(depth)}), MessageResult(nestedArrays(depth)));
  }
  const MessageResult tooDeep = call("echo:", {nestedArrays(kMaxPeerDepth + 1)});
  ASSERT_FALSE(tooDeep);
  EXPECT_EQ(tooDeep.error().name, kNSInvalidArgumentException);
  EXPECT_THAT(tooDeep.error().reason, testing::HasSubstr("deep"));
}

TEST_P(PeerTransportContract, TheValuesOfAMessageAreLimited) {
  start();
  const auto ofNodes = [](std::size_t nodes) { return Value(Array(nodes - 1, Value(true))); };
  for (const std::size_t nodes : {kMaxPeerNodes - 1, kMaxPeerNodes}) {
    const MessageResult answer = call("echo:", {ofNodes(nodes)});
    ASSERT_TRUE(answer) << answer.error().reason;
    EXPECT_EQ(answer->array()->size(), nodes - 1);
  }
  const MessageResult tooMany = call("echo:", {ofNodes(kMaxPeerNodes + 1)});
  ASSERT_FALSE(tooMany);
  EXPECT_THAT(tooMany.error().reason, testing::HasSubstr("values"));
}

TEST_P(PeerTransportContract, TheArgumentsOfASelectorAreLimited) {
  start();
  for (const std::size_t count : {kMaxPeerArguments - 1, kMaxPeerArguments}) {
    EXPECT_EQ(call("a" + std::string(count, ':'), Array(count, Value(7))), MessageResult(7));
  }
  EXPECT_FALSE(
      call("a" + std::string(kMaxPeerArguments + 1, ':'), Array(kMaxPeerArguments + 1, Value(7))));
  for (const std::size_t length : {kMaxPeerSelectorLength - 1, kMaxPeerSelectorLength}) {
    EXPECT_TRUE(call(std::string(length, 'a')));
  }
  EXPECT_FALSE(call(std::string(kMaxPeerSelectorLength + 1, 'a')));
}

// The body of a message with one piece of data is 8 bytes longer than the data.
TEST_P(PeerTransportContract, LargeMessagesAreSentUpToTheLimit) {
  start();
  const std::size_t inOneMessage = kMaxPeerMessageBytes - kPeerMessageHeaderBytes - 8;
  const std::size_t atMost = kMaxPeerMemoryFileBytes - kPeerMessageHeaderBytes - 8;
  for (const std::size_t size :
       {inOneMessage - 1, inOneMessage, inOneMessage + 1, atMost - 1, atMost}) {
    const Value data(Data(size, std::uint8_t{0x5a}));
    const MessageResult answer = call("echo:", {data});
    ASSERT_TRUE(answer) << size << ": " << answer.error().reason;
    EXPECT_EQ(*answer, data);
  }
  const MessageResult tooLarge = call("echo:", {Value(Data(atMost + 1))});
  ASSERT_FALSE(tooLarge);
  EXPECT_EQ(tooLarge.error().name, kNSInvalidArgumentException);
  EXPECT_THAT(tooLarge.error().reason, testing::HasSubstr("bytes"));
}

TEST_P(PeerTransportContract, ALargeExceptionIsSent) {
  start();
  const Value userInfo = Dictionary{{"data", Data(kMaxPeerMessageBytes)}};
  const MessageResult answer = call("raise:", {userInfo});
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error(), (NSException{"SomeException", "Some reason", userInfo}));
}

TEST_P(PeerTransportContract, TheCallsThatAwaitAnAnswerAreLimited) {
  start();
  const auto keep = [this] {
    client_->callAsync("keep", {}, Duration::max(), [this](const MessageResult& result) {
      journal_.note(result ? "answered" : result.error().name);
    });
  };
  for (std::size_t i = 0; i < kMaxPeerCallsAwaitingReply - 1; ++i) keep();
  runUntilNoted("kept", kMaxPeerCallsAwaitingReply - 1);
  keep();
  runUntilNoted("kept", kMaxPeerCallsAwaitingReply);
  EXPECT_EQ(call("echo:", {Value(1)}).error().name, kNSInvalidArgumentException);
  keep();
  runUntilNoted(kNSInvalidArgumentException);
  harness_->there([this](PeerTransport&) { ASSERT_TRUE(server_.kept.back()->answer(Value(1))); });
  runUntilNoted("answered");
  EXPECT_TRUE(call("echo:", {Value(1)}));
}

// The caller stops waiting, so that its own limit is not reached first.
TEST_P(PeerTransportContract, TheAnswersThatAPeerOwesAreLimited) {
  start();
  const auto keep = [this] {
    const MessageResult result = call("keep", {}, 0s);
    EXPECT_EQ(result.error().name, kNSPortTimeoutException);
  };
  for (std::size_t i = 0; i < kMaxPeerCallsAwaitingReply - 1; ++i) keep();
  EXPECT_TRUE(call("echo:", {Value(1)}));
  keep();
  const MessageResult tooMany = call("echo:", {Value(1)});
  ASSERT_FALSE(tooMany);
  EXPECT_EQ(tooMany.error().name, kNSInvalidArgumentException);
  // A dropped reply frees its place without an answer.
  harness_->there([this](PeerTransport&) { server_.kept.pop_back(); });
  EXPECT_TRUE(call("echo:", {Value(1)}));
}

TEST_P(PeerTransportContract, APeerThatDoesNotReadItsAnswersIsDisconnected) {
  start();
  noteDeath(*client_);
  constexpr int kCalls = 20;
  for (int i = 0; i < kCalls; ++i) {
    client_->callAsync("keep", {}, Duration::max(), [](const MessageResult&) {});
  }
  runUntilNoted("kept", kCalls);
  harness_->there([this](PeerTransport&) {
    std::size_t answered = 0;
    while (server_.kept[answered]->answer(Value(Data(300'000)))) ++answered;
    EXPECT_GE(answered, 3u);
    EXPECT_LT(answered, 10u);
  });
  runUntilNoted("client died");
  runUntilNoted("death");
  // Other clients are not affected.
  client_ = connect();
  EXPECT_TRUE(call("echo:", {Value(1)}));
}

TEST_P(PeerTransportContract, UnreadOneWayMessagesAreRefused) {
  start();
  settle();
  harness_->hang();
  int sent = 0;
  Result<void> result;
  while (sent < 100 && (result = client_->send("note:", {Value(Data(300'000))}))) ++sent;
  EXPECT_GE(sent, 3);
  EXPECT_LT(sent, 20);
  ASSERT_FALSE(result);
  EXPECT_EQ(result.error().code, ErrorCode::kExhausted);
  EXPECT_EQ(call("echo:", {Value(Data(300'000))}, 10ms).error().name, kNSPortTimeoutException);
  harness_->goOn();
  EXPECT_TRUE(call("echo:", {Value(Data(300'000))}));
  EXPECT_EQ(journal_.count("note:"), static_cast<std::size_t>(sent));
}

TEST_P(PeerTransportContract, APeerThatIsNotAdmittedSendsOnlySmallMessages) {
  server_.admits = false;
  start();
  noteDeath(*client_);
  EXPECT_TRUE(call("echo:", {Value(Data(60'000))}));
  EXPECT_EQ(call("echo:", {Value(Data(70'000))}).error().name, kNSInvalidSendPortException);
  runUntilNoted("death");
  runUntilNoted("client died");
  client_ = connect();
  settle();
  harness_->there([this](PeerTransport&) { server_.connections.back()->admit(); });
  EXPECT_TRUE(call("echo:", {Value(Data(70'000))}));
}

TEST_P(PeerTransportContract, APeerThatIsNotAdmittedInTimeIsRefusedOnce) {
  server_.admits = false;
  startWithAdmissionTime(20ms);
  noteDeath(*client_);
  runUntilNoted("death");
  harness_->runUntil(
      [this] { return journal_.count("client died") == journal_.count("connected"); });
  harness_->loop().post([this] { journal_.note("later"); });
  runUntilNoted("later");
  EXPECT_EQ(journal_.count("death"), 1u);
  EXPECT_EQ(journal_.count("client died"), journal_.count("connected"));
}

TEST_P(PeerTransportContract, NoPeerIsRefusedBeforeItsTime) {
  server_.admits = false;
  constexpr Duration kTime = 50ms;
  startWithAdmissionTime(kTime);
  std::optional<Instant> refused;
  client_->setHandlers({.message = {}, .death = [&](const Error&) {
                          refused = harness_->loop().now();
                          journal_.note("death");
                        }});
  runUntilNoted("death");
  EXPECT_GE(*refused - begun_, kTime);
}

TEST_P(PeerTransportContract, AnAdmittedPeerStays) {
  startWithAdmissionTime(10ms);
  EXPECT_TRUE(call("echo:", {Value(1)}));
  const auto later =
      harness_->loop().startTimer(30ms, RunLoop::Repeat::kOnce, [this] { journal_.note("later"); });
  runUntilNoted("later");
  EXPECT_TRUE(call("echo:", {Value(1)}));
}

TEST_P(PeerTransportContract, BeyondTheLastPlaceTheOldestNewcomerIsRefused) {
  server_.admits = false;
  listen({.admissionTime = 60s});
  std::vector<std::unique_ptr<PeerConnection>> clients;
  const auto add = [&] {
    clients.push_back(connect());
    ASSERT_TRUE(clients.back());
    noteDeath(*clients.back(), "death of " + std::to_string(clients.size()));
  };
  while (clients.size() < kPeerPlaces) add();
  runUntilNoted("connected", kPeerPlaces);
  for (auto& client : clients) ASSERT_TRUE(client->call("echo:", {Value(1)}, 60s));
  add();
  runUntilNoted("death of 1");
  for (std::size_t i = 1; i < clients.size(); ++i) {
    EXPECT_TRUE(clients[i]->call("echo:", {Value(1)}, 60s)) << i;
  }
  harness_->there([this](PeerTransport&) { server_.connections[1]->admit(); });
  add();
  runUntilNoted("connected", kPeerPlaces + 2);
  EXPECT_TRUE(clients.back()->call("echo:", {Value(1)}, 60s));
  EXPECT_TRUE(clients[2]->call("echo:", {Value(1)}, 60s));  // The place was free.
}

TEST_P(PeerTransportContract, ADroppedNewcomerIsRefused) {
  harness_->there([&](PeerTransport& there) {
    auto listener = there.listen(path(), {}, [this](auto) { journal_.note("dropped"); });
    ASSERT_TRUE(listener);
    server_.listener = std::move(*listener);
  });
  const auto connection = harness_->here().connect(path(), {.timeout = 60s});
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().kind, PeerConnectFailure::Kind::kRefused);
}

TEST_P(PeerTransportContract, TheConnectionsOfAUserShareItsTurns) {
  constexpr std::size_t kConnections = 12;
  start({.audience = PeerAudience::all()});
  std::vector<std::unique_ptr<PeerConnection>> flood;
  while (flood.size() < kConnections) {
    flood.push_back(harness_->connectAsStranger(path()));
    if (!flood.back()) GTEST_SKIP() << "only root can become another user";
  }
  runUntilNoted("connected", 1 + kConnections);
  const std::size_t before = journal_.entries().size();
  harness_->hang();
  for (const auto& stranger : flood) ASSERT_TRUE(stranger->send("stranger", {}));
  ASSERT_TRUE(client_->send("own", {}));
  harness_->goOn();
  runUntilNoted("stranger", kConnections);
  const Log notes = journal_.entries();
  const auto own = std::ranges::find(notes, "own") - notes.begin();
  EXPECT_LT(static_cast<std::size_t>(own), before + 4);
}

}  // namespace platform
