#include "Platform/XPC/XPC.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/XPC/FakeXPC.h"
#include "Platform/XPC/WaitingMessages.h"
#include "Platform/XPC/XPCTurns_contract.h"
#include "Platform/XPC/XPC_contract.h"

namespace platform {
namespace {

class FakeXPCHarness final : public XPCHarness {
 public:
  XPC& here() override { return here_->xpc; }
  XPC& there() override { return there_->xpc; }
  void endThere() override { there_->transport.die(); }
  void end() override {
    loop_.runReady();
    there_.reset();
    here_.reset();
    loop_.runReady();
  }
  PeerCredentials self() override { return {100, 501, 20}; }
  void await(const std::function<bool()>& done) override {
    loop_.runReady();
    EXPECT_TRUE(done());
  }
  void changed() override {}

 private:
  VirtualRunLoop loop_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  FakePeerNetwork network_{loop_};
  std::optional<FakeXPC> here_{std::in_place, network_, PeerCredentials{100, 501, 20}, log_};
  std::optional<FakeXPC> there_{std::in_place, network_, PeerCredentials{200, 501, 20}, log_};
};

std::unique_ptr<XPCHarness> makeHarness() { return std::make_unique<FakeXPCHarness>(); }

INSTANTIATE_TEST_SUITE_P(Fake, XPCContract, testing::Values(&makeHarness));

// Handlers that the delegate sets then would never be dropped.
TEST_P(XPCContract, AConnectionThatHasEndedIsNotPassedToTheDelegate) {
  listen();
  listener_->suspend();
  client_ = connect();
  harness_->await([] { return true; });  // Turns the loop, and the client connects.
  client_->invalidate();
  journal_.await("invalid");
  listener_->resume();
  client_ = connect();
  call(*client_, "echo:withReply:", {Value(1)});
  EXPECT_EQ(delegate_->peers.size(), 1u);
}

TEST_P(XPCContract, AConnectionThatWaitsForAnEndedListenerIsRejected) {
  listen();
  listener_->suspend();
  client_ = connect();
  send(*client_, "echo:withReply:", {Value(1)});
  harness_->await([] { return true; });  // Turns the loop, and the client connects and waits.
  listener_.reset();
  journal_.await("interrupted");
  EXPECT_EQ(journal_.count("error 4097"), 1u);
  EXPECT_EQ(journal_.count("accepted"), 0u);
}

TEST_P(XPCContract, TheBytesThatWaitToBeServedAreLimited) {
  constexpr std::size_t kFirst = std::size_t{12} << 20;
  // The text is long, because a short one costs the least memory of a value.
  const std::size_t others = costOfWaiting({Value(std::string(kFirst, 'x'))}).bytes - kFirst;
  const auto costing = [&](std::size_t bytes) { return Value(std::string(bytes - others, 'x')); };
  listen();
  for (const std::size_t excess : {std::size_t{0}, std::size_t{1}}) {
    client_ = connect();
    call(*client_, "echo:withReply:", {Value(1)});
    const auto serverSide = delegate_->accepted.back().lock();
    serverSide->suspend();
    client_->sendMessage("note:", {costing(kFirst)}, nullptr, nullptr);
    client_->sendMessage("note:", {costing(NSXPCConnection::kMaxWaitingBytes - kFirst + excess)},
                         nullptr, nullptr);
    journal_.await("interrupted", excess);
    EXPECT_EQ(journal_.count("interrupted"), excess);
    EXPECT_EQ(serverSide->isInvalid(), excess == 1);
    serverSide->resume();
  }
}

// An XPC of a process with few connections for each user, and its clients.
class ConnectionsOfOneUser : public testing::Test {
 protected:
  static constexpr std::size_t kMost = 3;

  struct Answering final : NSXPCExportedObject {
    void receiveMessage(std::string_view /*selector*/, const Array& arguments,
                        XPCReply reply) override {
      ++messages;
      if (reply) reply(arguments);
    }
    int messages = 0;
  };
  struct Welcoming final : NSXPCListenerDelegate {
    bool listener(NSXPCListener& /*listener*/,
                  const std::shared_ptr<NSXPCConnection>& connection) override {
      connection->setExportedInterface(&xpcTestProtocol());
      connection->setExportedObject(object);
      connection->resume();
      return true;
    }
    const std::shared_ptr<Answering> object = std::make_shared<Answering>();
  };

  std::shared_ptr<NSXPCListener> start(std::shared_ptr<NSXPCListener> listener) {
    listener->setDelegate(delegate_);
    listener->resume();
    return listener;
  }
  // Returns whether it stays connected.
  bool add(std::shared_ptr<NSXPCConnection> connection) {
    const auto hasEnded = std::make_shared<bool>(false);
    connection->setInvalidationHandler([hasEnded] { *hasEnded = true; });
    connection->setInterruptionHandler([hasEnded] { *hasEnded = true; });
    connection->resume();
    connections_.push_back(std::move(connection));
    loop_.runReady();
    return !*hasEnded;
  }
  ~ConnectionsOfOneUser() override {
    connections_.clear();
    loop_.runReady();
  }

  VirtualRunLoop loop_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  FakePeerNetwork network_{loop_};
  FakeXPC client_{network_, {100, 501, 20}, log_};
  FakeXPC neighbour_{network_, {101, 502, 20}, log_};
  static constexpr PeerCost kOfUser{
      .connections = kMost, .descriptors = 1000, .bytes = 1 << 20, .calls = 1000};
  static constexpr PeerCost kOfAll{
      .connections = 9 * kMost, .descriptors = 9000, .bytes = 9 << 20, .calls = 9000};
  const std::shared_ptr<PeerAccounts> accounts_ =
      std::make_shared<PeerAccounts>(0, PeerAccounts::Limits{.user = kOfUser, .all = kOfAll});
  FakePeerTransport transport_{network_, {200, 0, 0}, accounts_};
  PeerAudience audience_ = PeerAudience::all();
  XPC xpc_{{.loop = loop_,
            .transport = transport_,
            .log = log_,
            .performOnLoop = [](const std::function<void()>& action) { action(); },
            .makeQueues = [this] { return std::make_unique<VirtualSerialQueues>(loop_); },
            .place =
                [this](std::string_view name) {
                  return ListenerPlace("/mach/" + std::string(name), audience_, {});
                },
            .endpointClients = audience_,
            .accounts = accounts_}};
  const std::shared_ptr<Welcoming> delegate_ = std::make_shared<Welcoming>();
  std::vector<std::shared_ptr<NSXPCConnection>> connections_;
};

TEST_F(ConnectionsOfOneUser, AreLimited) {
  const auto listener = start(xpc_.makeListener("service"));
  for (std::size_t i = 0; i < kMost - 1; ++i)
    EXPECT_TRUE(add(client_.xpc.makeConnection("service")));
  EXPECT_TRUE(add(client_.xpc.makeConnection("service")));
  EXPECT_FALSE(add(client_.xpc.makeConnection("service")));
  EXPECT_TRUE(add(neighbour_.xpc.makeConnection("service")));
}

TEST_F(ConnectionsOfOneUser, MakeRoomWhenTheyEnd) {
  const auto listener = start(xpc_.makeListener("service"));
  for (std::size_t i = 0; i < kMost; ++i) EXPECT_TRUE(add(client_.xpc.makeConnection("service")));
  connections_.pop_back();
  loop_.runReady();
  EXPECT_TRUE(add(client_.xpc.makeConnection("service")));
  EXPECT_FALSE(add(client_.xpc.makeConnection("service")));
}

TEST_F(ConnectionsOfOneUser, AreRefusedAndLoggedOutsideOfTheAudience) {
  audience_ = {};
  const auto listener = start(xpc_.makeListener("service"));
  for (int i = 0; i < 100; ++i) EXPECT_FALSE(add(client_.xpc.makeConnection("service")));
  EXPECT_EQ(sink_.count("process 100 of user 501: this user may not use service"), 10u);
}

TEST_F(ConnectionsOfOneUser, EndWhenTheirProcessChangesItsUser) {
  const auto listener = start(xpc_.makeListener("service"));
  const auto connection = client_.xpc.makeConnection("service");
  connection->setRemoteObjectInterface(&xpcTestProtocol());
  ASSERT_TRUE(add(connection));
  client_.transport.becomeUser(503);
  bool hasFailed = false;
  connection->sendMessage(
      "echo:withReply:", {Value(1)}, [](const Array&) { FAIL() << "answered"; },
      [&](const NSError&) { hasFailed = true; });
  loop_.runReady();
  EXPECT_TRUE(hasFailed);
  EXPECT_EQ(sink_.count("process 100 of user 501, which has become another user's"), 1u);
}

// It can't ask then whose process has the connection.
TEST_F(ConnectionsOfOneUser, OutliveTheRequestsToAServerWithoutDescriptors) {
  const auto listener = start(xpc_.makeListener("service"));
  const auto connection = client_.xpc.makeConnection("service");
  connection->setRemoteObjectInterface(&xpcTestProtocol());
  ASSERT_TRUE(add(connection));
  std::vector<std::string> answers;
  const auto ask = [&] {
    connection->sendMessage("note:", {Value("one-way")}, nullptr, nullptr);
    connection->sendMessage(
        "echo:withReply:", {Value(1)}, [&](const Array&) { answers.emplace_back("answered"); },
        [&](const NSError& error) { answers.push_back(std::to_string(error.code)); });
    loop_.runReady();
  };
  transport_.setShortage(true);
  ask();
  EXPECT_THAT(answers, testing::ElementsAre(std::to_string(NSXPCConnectionReplyInvalid)));
  EXPECT_EQ(delegate_->object->messages, 0);
  transport_.setShortage(false);
  ask();
  EXPECT_EQ(answers.back(), "answered");
  EXPECT_EQ(delegate_->object->messages, 2);
  EXPECT_EQ(sink_.count("Refused a message of process 100 of user 501"), 2u);
}

TEST_F(ConnectionsOfOneUser, EndWithTheRequestsOfTheirDeadProcess) {
  const auto listener = start(xpc_.makeListener("service"));
  const auto connection = client_.xpc.makeConnection("service");
  connection->setRemoteObjectInterface(&xpcTestProtocol());
  ASSERT_TRUE(add(connection));
  for (int i = 0; i < 100; ++i) {
    connection->sendMessage(
        "echo:withReply:", {Value(i)}, [](const Array&) { FAIL() << "answered"; },
        [](const NSError&) {});
  }
  loop_.post([this] { client_.transport.die(); });
  loop_.runReady();
  EXPECT_TRUE(sink_.texts().empty());
  EXPECT_TRUE(add(neighbour_.xpc.makeConnection("service")));
}

TEST_F(ConnectionsOfOneUser, AreCountedForAllListenersTogether) {
  const auto listener = start(xpc_.makeListener("service"));
  const auto anonymous = start(xpc_.makeAnonymousListener());
  for (std::size_t i = 1; i < kMost; ++i) {
    EXPECT_TRUE(add(client_.xpc.makeConnection("service")));
  }
  EXPECT_TRUE(add(client_.xpc.makeConnection(anonymous->endpoint())));
  EXPECT_FALSE(add(client_.xpc.makeConnection("service")));
  EXPECT_FALSE(add(client_.xpc.makeConnection(anonymous->endpoint())));
}

}  // namespace
}  // namespace platform
