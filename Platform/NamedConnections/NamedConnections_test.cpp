#include "Platform/NamedConnections/NamedConnections.h"

#include <gtest/gtest.h>

#include "Platform/NamedConnections/NamedConnections_contract.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {
namespace {

class FakeConnectionsHarness final : public NamedConnectionsHarness {
 public:
  ConnectedProgram& here() override { return here_; }
  void there(const std::function<void(ConnectedProgram&)>& action) override { action(there_); }
  void thereWhileWeHang(const std::function<void(ConnectedProgram&)>& action) override {
    transportHere_.hang();
    action(there_);
    transportHere_.goOn();
  }
  void thereWhileWeWait(std::function<bool()> action) override {
    loop_.scheduleOutsideEvent(1ms, [this, action = std::move(action)] {
      if (!action()) thereWhileWeWait(action);
    });
  }
  std::string path(std::string_view name) override { return "connections/" + std::string(name); }

 private:
  NamedConnections::PlaceOfName paths() {
    return [this](std::string_view name) { return path(name); };
  }

  VirtualRunLoop loop_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport transportHere_{network_, {100, 1, 1}};
  FakePeerTransport transportThere_{network_, {200, 1, 1}};
  ConnectedProgram here_{loop_, transportHere_, paths()};
  ConnectedProgram there_{loop_, transportThere_, paths()};
};

std::unique_ptr<NamedConnectionsHarness> makeFakeHarness() {
  return std::make_unique<FakeConnectionsHarness>();
}

INSTANTIATE_TEST_SUITE_P(Fake, NamedConnectionsContract, testing::Values(&makeFakeHarness));
INSTANTIATE_TEST_SUITE_P(Fake, NamedConnectionsReferencesContract,
                         testing::Values(&makeFakeHarness));
INSTANTIATE_TEST_SUITE_P(Fake, NamedConnectionsRepliesContract, testing::Values(&makeFakeHarness));
INSTANTIATE_TEST_SUITE_P(Fake, NamedConnectionsPeersContract, testing::Values(&makeFakeHarness));

class NamedConnectionsTest : public testing::Test {
 protected:
  std::shared_ptr<NSConnection> vend(std::string_view name) {
    auto connection = server_.connections.makeConnection();
    connection->setDelegate(&delegate_);
    EXPECT_TRUE(connection->registerName(name));
    return connection;
  }

  // Its object answers every message.
  std::shared_ptr<NSConnection> vendAnswering(std::string_view name) {
    auto connection = vend(name);
    connection->setRootObject(std::make_shared<NSProtocolChecker>(&answering_, &kServerProtocol));
    return connection;
  }
  // Null on failure.
  std::shared_ptr<NSDistantObject> authenticatedProxy(std::string_view name) {
    client_ = program_.connections.connectionWithRegisteredName(name);
    if (!client_) return nullptr;
    client_->setDelegate(&clientDelegate_);
    auto proxy = client_->rootProxy();
    if (!proxy) return nullptr;
    (*proxy)->setProtocolForProxy(&kServerProtocol);
    return *proxy;
  }

  struct Answering final : MessageReceiver {
    MessageResult receiveMessage(std::string_view, const Array&) override { return Value(); }
  } answering_;
  TokenDelegate delegate_{"server", "client"};
  TokenDelegate clientDelegate_{"client", "server"};
  VirtualRunLoop loop_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 1, 1}};
  FakePeerTransport serverTransport_{network_, {200, 1, 1}};
  ConnectedProgram program_{loop_, transport_,
                            [](std::string_view name) { return std::string(name); }};
  ConnectedProgram server_{loop_, serverTransport_,
                           [](std::string_view name) { return std::string(name); }};
  std::shared_ptr<NSConnection> client_;
};

TEST_F(NamedConnectionsTest, AHungServerIsAskedAgainAfterAPause) {
  const auto connection = vend("server");
  serverTransport_.hang();
  const Instant start = loop_.now();
  EXPECT_EQ(program_.connections.connectionWithRegisteredName("server"), nullptr);
  const Duration wait = loop_.now() - start;
  EXPECT_EQ(wait, 5s);
  serverTransport_.goOn();
  EXPECT_EQ(program_.connections.connectionWithRegisteredName("server"), nullptr);
  loop_.advanceBy(NamedConnections::kHungServerPause - 1ns);
  EXPECT_EQ(program_.connections.connectionWithRegisteredName("server"), nullptr);
  EXPECT_EQ(loop_.now() - start, wait + NamedConnections::kHungServerPause - 1ns);
  loop_.advanceBy(1ns);
  EXPECT_NE(program_.connections.connectionWithRegisteredName("server"), nullptr);
}

TEST_F(NamedConnectionsTest, AHungServerDoesNotBlockAnother) {
  const auto connection = vend("server");
  const auto other = vend("other");
  serverTransport_.hang();
  EXPECT_EQ(program_.connections.connectionWithRegisteredName("server"), nullptr);
  serverTransport_.goOn();
  EXPECT_NE(program_.connections.connectionWithRegisteredName("other"), nullptr);
}

TEST_F(NamedConnectionsTest, AClientThatDoesNotAuthenticateInTimeIsDisconnected) {
  const auto connection = vend("server");
  const auto client = program_.connections.connectionWithRegisteredName("server");
  ASSERT_TRUE(client);
  loop_.advanceBy(kPeerAdmissionTime - 1ns);
  EXPECT_EQ(connection->childConnections().size(), 1u);
  loop_.advanceBy(1ns);
  EXPECT_TRUE(connection->childConnections().empty());
  EXPECT_EQ(server_.sink.count("with process 100 of user 1: "), 1u);
  EXPECT_FALSE(client->isValid());
}

TEST_F(NamedConnectionsTest, AUserOutsideOfTheAudienceIsRefusedAndLogged) {
  const auto connection = vend("server");
  FakePeerTransport stranger(network_, {300, 3, 3});
  for (int i = 0; i < 100; ++i) {
    const auto refused = stranger.connect("server", {.servers = PeerAudience::all()});
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().kind, PeerConnectFailure::Kind::kRefused);
  }
  EXPECT_TRUE(connection->childConnections().empty());
  EXPECT_EQ(server_.sink.count("with process 300 of user 3: this user may not use it"), 10u);
}

TEST_F(NamedConnectionsTest, AServerOfAnotherUserIsNotAsked) {
  FakePeerTransport impostor(network_, {300, 3, 3});
  const auto listener =
      impostor.listen("server", {.audience = PeerAudience::all()},
                      [](std::unique_ptr<PeerConnection>) { ADD_FAILURE() << "asked"; });
  ASSERT_TRUE(listener);
  EXPECT_EQ(program_.connections.connectionWithRegisteredName("server"), nullptr);
}

TEST_F(NamedConnectionsTest, AProcessThatHasBecomeAnotherUsersIsRefused) {
  const auto connection = vend("server");
  const auto client = program_.connections.connectionWithRegisteredName("server");
  ASSERT_TRUE(client);
  TokenDelegate right("client", "server");
  client->setDelegate(&right);
  transport_.becomeUser(3);
  const auto proxy = client->rootProxy();
  ASSERT_FALSE(proxy);
  EXPECT_EQ(proxy.error().name, kNSFailedAuthenticationException);
  EXPECT_TRUE(connection->childConnections().empty());
}

TEST_F(NamedConnectionsTest, AProcessThatBecomesAnotherUsersIsServedNoMore) {
  const auto connection = vendAnswering("server");
  const auto proxy = authenticatedProxy("server");
  ASSERT_TRUE(proxy);
  EXPECT_TRUE(proxy->sendMessage("nothing", {}));
  transport_.becomeUser(3);
  const auto refused = proxy->sendMessage("nothing", {});
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().name, kNSFailedAuthenticationException);
  EXPECT_TRUE(connection->childConnections().empty());
  EXPECT_EQ(server_.sink.count("its process has become another user's"), 1u);
}

TEST_F(NamedConnectionsTest, AnEndedProcesssLastRequestIsServedWithoutAnAnswer) {
  struct Counting final : MessageReceiver {
    MessageResult receiveMessage(std::string_view, const Array&) override {
      ++served;
      return Value();
    }
    int served = 0;
  } counting;
  const auto connection = vend("server");
  connection->setRootObject(std::make_shared<NSProtocolChecker>(&counting, &kServerProtocol));
  const auto proxy = authenticatedProxy("server");
  ASSERT_TRUE(proxy);
  // The request is open until its connection ends, which is after this function.
  const auto answers = std::make_shared<int>(0);
  proxy->sendMessageAsync("nothing", {}, MessageReply([answers](const MessageResult& answer) {
                            *answers += !!answer;
                          }));
  transport_.leaveToReader();
  loop_.runReady();
  EXPECT_EQ(counting.served, 1);
  EXPECT_EQ(*answers, 0);
}

TEST_F(NamedConnectionsTest, AServerWithoutDescriptorsRefusesARequest) {
  const auto connection = vendAnswering("server");
  const auto proxy = authenticatedProxy("server");
  ASSERT_TRUE(proxy);
  serverTransport_.setShortage(true);
  const auto refused = proxy->sendMessage("nothing", {});
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().name, kNSInvalidArgumentException);
  serverTransport_.setShortage(false);
  EXPECT_TRUE(proxy->sendMessage("nothing", {}));
  EXPECT_EQ(connection->childConnections().size(), 1u);
}

TEST_F(NamedConnectionsTest, AServerWithoutDescriptorsBlamesNoClient) {
  const auto connection = vend("server");
  TokenDelegate right("client", "server");
  const auto nameOfFailure = [&]() -> std::string {
    const auto client = program_.connections.connectionWithRegisteredName("server");
    client->setDelegate(&right);
    const auto proxy = client->rootProxy();
    return proxy ? "" : proxy.error().name;
  };
  serverTransport_.setShortage(true);
  EXPECT_EQ(nameOfFailure(), kNSInvalidArgumentException);
  serverTransport_.setShortage(false);
  EXPECT_EQ(nameOfFailure(), "");
}

TEST_F(NamedConnectionsTest, AnObjectKnowsThePeerOfItsMessage) {
  struct Asked final : MessageReceiver {
    MessageResult receiveMessage(std::string_view, const Array&) override {
      if (const PeerCredentials* const current = NSConnection::currentPeer()) peer = *current;
      return Value();
    }
    PeerCredentials peer;
  } asked;
  const auto connection = vend("server");
  connection->setRootObject(std::make_shared<NSProtocolChecker>(&asked, &kServerProtocol));
  const auto client = program_.connections.connectionWithRegisteredName("server");
  ASSERT_TRUE(client);
  TokenDelegate right("client", "server");
  client->setDelegate(&right);
  const auto proxy = client->rootProxy();
  ASSERT_TRUE(proxy);
  (*proxy)->setProtocolForProxy(&kServerProtocol);
  EXPECT_TRUE((*proxy)->sendMessage("nothing", {}));
  EXPECT_EQ(asked.peer, (PeerCredentials{100, 1, 1}));
  EXPECT_EQ(NSConnection::currentPeer(), nullptr);
}

TEST_F(NamedConnectionsTest, TheNameOfADeadOwnerIsFree) {
  const auto connection = vend("server");
  serverTransport_.die();
  EXPECT_EQ(program_.connections.connectionWithRegisteredName("server"), nullptr);
  EXPECT_TRUE(program_.connections.makeConnection()->registerName("server"));
}

TEST_F(NamedConnectionsTest, EachRoleHasItsDefaultTimeouts) {
  const auto connection = vend("server");
  EXPECT_EQ(connection->replyTimeout(), 2s);
  const auto client = program_.connections.connectionWithRegisteredName("server");
  ASSERT_TRUE(client);
  EXPECT_EQ(client->replyTimeout(), 10s);
  EXPECT_EQ(client->requestTimeout(), 10s);
}

}  // namespace
}  // namespace platform
