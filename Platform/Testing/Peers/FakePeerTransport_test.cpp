#include "Platform/Testing/Peers/FakePeerTransport.h"

#include <gtest/gtest.h>

#include "Platform/Peers/PeerTransport_contract.h"

namespace platform {
namespace {

constexpr PeerCredentials kHere{100, 0, 0};
constexpr PeerCredentials kThere{200, 0, 0};
constexpr PeerCredentials kStranger{300, 1000, 1000};

class FakePeerProcesses final : public PeerTransportHarness {
 public:
  RunLoop& loop() override { return loop_; }
  PeerTransport& here() override { return here_; }
  std::string path(std::string_view name) override { return "/fake/" + std::string(name); }
  void there(const Action& action) override { action(there_); }
  std::unique_ptr<PeerConnection> connectAsStranger(const std::string& path) override {
    return std::move(*stranger_.connect(path, {}));
  }
  void hang() override { there_.hang(); }
  void goOn() override { there_.goOn(); }

  void runUntil(const std::function<bool()>& done) override {
    done_ = &done;
    if (!done()) {
      const auto deadline =
          loop_.startTimer(120s, RunLoop::Repeat::kOnce, [this] { loop_.stop(); });
      loop_.run();
    }
    done_ = nullptr;
    EXPECT_TRUE(done());
  }
  void changed() override {
    if (done_ != nullptr && (*done_)()) loop_.stop();
  }

 private:
  VirtualRunLoop loop_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport here_{network_, kHere};
  FakePeerTransport there_{network_, kThere};
  FakePeerTransport stranger_{network_, kStranger};
  const std::function<bool()>* done_ = nullptr;
};

std::unique_ptr<PeerTransportHarness> makeFakePeerHarness() {
  return std::make_unique<FakePeerProcesses>();
}

INSTANTIATE_TEST_SUITE_P(Fake, PeerTransportContract, testing::Values(&makeFakePeerHarness));

class FakePeerTransportTest : public testing::Test {
 protected:
  std::unique_ptr<PeerListener> listen(FakePeerTransport& process,
                                       PeerListenerOptions options = {}) {
    options.audience = audience_;
    auto listener = process.listen("name", options, [this](std::unique_ptr<PeerConnection> peer) {
      peer->setHandlers({.message =
                             [this](PeerMessage message) {
                               if (message.reply) replies_.push_back(std::move(message.reply));
                             },
                         .death = [this](const Error& why) { deaths_.push_back(why); }});
      accepted_.push_back(std::move(peer));
    });
    EXPECT_TRUE(listener);
    return listener ? std::move(*listener) : nullptr;
  }

  PeerAudience audience_ = PeerAudience::all();
  VirtualRunLoop loop_;
  FakePeerNetwork network_{loop_};
  FakePeerTransport daemon_{network_, {1, 0, 0}};
  FakePeerTransport client_{network_, {2, 1000, 1000}};
  FakePeerTransport stranger_{network_, {3, 1001, 1001}};
  std::vector<std::unique_ptr<PeerConnection>> accepted_;
  std::vector<std::unique_ptr<PeerReply>> replies_;
  std::vector<Error> deaths_;
};

TEST_F(FakePeerTransportTest, ABlockingCallEndsWhenAnOutsideEventAnswersIt) {
  const auto listener = listen(daemon_);
  const auto connection = std::move(*client_.connect("name", {}));
  loop_.scheduleOutsideEvent(3s, [this] { EXPECT_TRUE(replies_.front()->answer(Value("late"))); });
  const Instant before = loop_.now();
  EXPECT_EQ(connection->call("wait", {}, 10s), MessageResult("late"));
  EXPECT_EQ(loop_.now() - before, 3s);
}

TEST_F(FakePeerTransportTest, ABlockingCallTimesOutInVirtualTime) {
  const auto listener = listen(daemon_);
  const auto connection = std::move(*client_.connect("name", {}));
  const Instant before = loop_.now();
  EXPECT_EQ(connection->call("wait", {}, 10s).error().name, kNSPortTimeoutException);
  EXPECT_EQ(loop_.now() - before, 10s);
}

TEST_F(FakePeerTransportTest, TheAdmissionTimeIsFiveSeconds) {
  const auto listener = listen(daemon_);
  const auto connection = std::move(*client_.connect("name", {}));
  loop_.advanceBy(5s - 1ns);
  EXPECT_EQ(accepted_.size(), 1u);
  EXPECT_TRUE(deaths_.empty());
  loop_.advanceBy(1ns);
  ASSERT_EQ(deaths_.size(), 1u);
  EXPECT_EQ(deaths_[0].code, ErrorCode::kDenied);
}

TEST_F(FakePeerTransportTest, OnlyTheAudienceMayConnect) {
  audience_ = {.everybody = false, .user = {}, .group = 1001};
  std::vector<PeerCredentials> excluded;
  const auto listener =
      listen(daemon_, {.excluded = [&](const PeerCredentials& peer) { excluded.push_back(peer); }});
  EXPECT_EQ(client_.connect("name", {}).error().kind, PeerConnectFailure::Kind::kRefused);
  EXPECT_EQ(excluded, (std::vector<PeerCredentials>{{2, 1000, 1000}}));
  EXPECT_TRUE(stranger_.connect("name", {}));
  EXPECT_TRUE(daemon_.connect("name", {}));
}

TEST_F(FakePeerTransportTest, AServerOfAnotherUserIsNotTrusted) {
  const auto listener = listen(client_);
  const auto connection = daemon_.connect("name", {});
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().kind, PeerConnectFailure::Kind::kRefused);
  EXPECT_EQ(connection.error().error.osError, EPERM);
  const PeerAudience servers{.everybody = false, .user = 1000, .group = {}};
  EXPECT_TRUE(daemon_.connect("name", {.servers = servers}));
}

// A process whose users may have one connection and two calls.
class FakePeerAccountsTest : public FakePeerTransportTest {
 protected:
  static constexpr PeerCost kMost{.connections = 1, .descriptors = 100, .bytes = 0, .calls = 2};
  FakePeerTransport small_{
      network_,
      {4, 0, 0},
      std::make_shared<PeerAccounts>(
          0, PeerAccounts::Limits{.user = kMost,
                                  .all = {.connections = 9, .descriptors = 900, .calls = 9}})};
  std::unique_ptr<PeerListener> listener_ = listen(small_);
};

TEST_F(FakePeerAccountsTest, TheConnectionsOfAnOrdinaryUserAreLimited) {
  auto held = std::move(*client_.connect("name", {}));
  const auto refused = client_.connect("name", {});
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().kind, PeerConnectFailure::Kind::kRefused);
  EXPECT_TRUE(stranger_.connect("name", {}));
  EXPECT_TRUE(daemon_.connect("name", {}));
  loop_.runReady();
  held.reset();
  loop_.runReady();
  EXPECT_TRUE(client_.connect("name", {}));
}

TEST_F(FakePeerAccountsTest, AnEndedConnectionCountsUntilItIsAnswered) {
  auto connection = std::move(*client_.connect("name", {}));
  connection->callAsync("wait", {}, 1s, [](const MessageResult&) {});
  loop_.runReady();
  ASSERT_EQ(replies_.size(), 1u);
  connection.reset();
  loop_.runReady();
  EXPECT_FALSE(client_.connect("name", {}));
  replies_.clear();
  EXPECT_TRUE(client_.connect("name", {}));
}

TEST_F(FakePeerAccountsTest, TheCallsOfAnOrdinaryUserAreLimited) {
  const auto connection = std::move(*client_.connect("name", {}));
  for (std::size_t i = 0; i < kMost.calls; ++i) {
    connection->callAsync("wait", {}, 1s, [](const MessageResult&) {});
  }
  loop_.runReady();
  EXPECT_EQ(replies_.size(), kMost.calls);
  EXPECT_EQ(connection->call("wait", {}, 1s).error().name, kNSInvalidArgumentException);
  replies_.clear();
  EXPECT_EQ(connection->call("wait", {}, 1s).error().name, kNSPortTimeoutException);
}

TEST_F(FakePeerTransportTest, ADeadProcessEndsItsConnectionsAndLeavesItsName) {
  const auto listener = listen(daemon_);
  const auto connection = std::move(*client_.connect("name", {}));
  int deaths = 0;
  connection->setHandlers({.message = {}, .death = [&](const Error&) { ++deaths; }});
  loop_.runReady();
  daemon_.die();
  EXPECT_EQ(connection->peerState(), PeerState::kEnded);
  loop_.runReady();
  EXPECT_EQ(deaths, 1);
  EXPECT_EQ(client_.connect("name", {}).error().kind, PeerConnectFailure::Kind::kNobodyThere);
  FakePeerTransport successor(network_, {4, 0, 0});
  const auto replaced = listen(successor);
  EXPECT_TRUE(client_.connect("name", {}));
}

TEST_F(FakePeerTransportTest, AProcessThatWaitsServesNoOtherConnection) {
  const auto listener = listen(daemon_);
  const auto first = std::move(*client_.connect("name", {}));
  loop_.runReady();
  // While the daemon waits for the client, a stranger that the client's handler stands for calls.
  const auto second = std::move(*stranger_.connect("name", {}));
  MessageResult inner;
  first->setHandlers({.message =
                          [&](PeerMessage message) {
                            inner = second->call("wait", {}, 1s);
                            EXPECT_TRUE(message.reply->answer(Value()));
                          },
                      .death = {}});
  EXPECT_TRUE(accepted_[0]->call("ask", {}, 5s));
  ASSERT_FALSE(inner);
  EXPECT_EQ(inner.error().name, kNSPortTimeoutException);
  EXPECT_TRUE(replies_.empty());
  loop_.runReady();
  EXPECT_EQ(replies_.size(), 1u);  // Served late, as in the real one.
}

TEST_F(FakePeerTransportTest, ADeathComesBeforeAnOrdinaryMessageOfAnother) {
  const auto listener = listen(daemon_);
  auto dying = std::move(*client_.connect("name", {}));
  const auto living = std::move(*stranger_.connect("name", {}));
  loop_.runReady();
  std::vector<std::string> order;
  accepted_[0]->setHandlers(
      {.message = {}, .death = [&](const Error&) { order.push_back("death"); }});
  accepted_[1]->setHandlers(
      {.message = [&](PeerMessage) { order.push_back("message"); }, .death = {}});
  ASSERT_TRUE(living->send("hello", {}));
  dying.reset();
  loop_.runReady();
  EXPECT_EQ(order, (std::vector<std::string>{"death", "message"}));
}

// An answer with one piece of data counts as the data and 1,032 bytes.
TEST_F(FakePeerTransportTest, TheBytesOfUnreadAnswersAreLimited) {
  for (const int excess : {-1, 0, 1}) {
    SCOPED_TRACE(excess);
    const auto listener = listen(daemon_);
    const auto connection = std::move(*client_.connect("name", {}));
    for (int i = 0; i < 2; ++i) connection->callAsync("wait", {}, 60s, [](const auto&) {});
    loop_.runReady();
    client_.hang();
    const std::size_t first = 500'000;
    ASSERT_TRUE(replies_[0]->answer(Value(Data(first))));
    const std::size_t room =
        kMaxPeerUnreadBytes - (first + 8 + kPeerMessageHeaderBytes) - (8 + kPeerMessageHeaderBytes);
    const auto second = replies_[1]->answer(Value(Data(room + static_cast<std::size_t>(excess))));
    EXPECT_EQ(second.has_value(), excess <= 0);
    client_.goOn();
    loop_.runReady();
    EXPECT_EQ(deaths_.size(), excess <= 0 ? 0u : 1u);
    replies_.clear();
    accepted_.clear();
    loop_.runReady();
  }
}

}  // namespace
}  // namespace platform
