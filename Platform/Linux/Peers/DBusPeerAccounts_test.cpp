// The limits of one user over all its connections.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/OtherUsers_fixture.h"
#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Peers/PeerAccounts.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {
namespace {

std::string frameOf(std::size_t bytes) {
  const auto message = encodeMessage("note:", {Value(Data(bytes))}, PeerMessageKind::kOneWay);
  EXPECT_TRUE(message);
  return message ? RawPeer::marshalled(message->message.get()) : std::string();
}

std::string largeFrame() { return frameOf(kMaxPeerMessageBytes - 2 * kPeerMessageHeaderBytes); }

// The server takes several readings for it, so its time begins. The kernel puts up to 32 KiB of one
// write into one buffer, so on a busy machine, too, no part of it arrives later than another.
std::string frameInOneBuffer() { return frameOf(16 * 1024); }

class DBusPeerAccountsTest : public testing::Test, protected PeerTransportBed {
 protected:
  explicit DBusPeerAccountsTest(
      std::unique_ptr<PeerThreads> threads = std::make_unique<PeerThreads>())
      : PeerTransportBed(std::move(threads)) {}

  // Starts a server that everybody may reach.
  void open(PeerListenerOptions options = {}) {
    options.audience = PeerAudience::all();
    start(options);
    ASSERT_EQ(::chmod(path().substr(0, path().rfind('/')).c_str(), 0711), 0);
  }
  std::unique_ptr<RawPeer> connectAsOrdinaryUser() {
    const AsOrdinaryUser user;
    auto peer = std::make_unique<RawPeer>(path());
    peer->authenticate();
    return peer;
  }
  bool isOrdinaryUserRefused() {
    const AsOrdinaryUser user;
    return RawPeer(path()).awaitClose();
  }
  // The server reads them concurrently, so any may be the one that takes too much.
  static bool awaitCloseOfAny(const std::vector<std::unique_ptr<RawPeer>>& peers) {
    std::vector<pollfd> entries;
    for (const auto& peer : peers) entries.push_back({peer->socket(), POLLRDHUP, 0});
    return ::poll(entries.data(), entries.size(), 60'000) > 0;
  }
  bool isServed() { return call("echo:", {Value(1)}) == MessageResult(1); }
};

TEST_F(DBusPeerAccountsTest, AMessageThatDoesNotArriveWholeInTimeCostsItsConnection) {
  start({.messageTime = 20ms});
  RawPeer peer(path());
  peer.authenticate();
  const std::string frame = frameInOneBuffer();
  EXPECT_TRUE(peer.write(frame.substr(0, frame.size() - 1)));
  EXPECT_TRUE(peer.awaitClose());
  EXPECT_TRUE(isServed());
}

TEST_F(DBusPeerAccountsTest, AnIdleConnectionHasNoTimeLimit) {
  start({.messageTime = 20ms});
  RawPeer idle(path());
  idle.authenticate();
  const auto silent = connect();
  EXPECT_TRUE(idle.write(frameInOneBuffer()));
  RawPeer late(path());
  late.authenticate();
  EXPECT_TRUE(late.write(frameInOneBuffer().substr(0, 100)));
  EXPECT_TRUE(late.awaitClose());  // By now the time of the idle one would be over, too.
  EXPECT_TRUE(idle.write(frameInOneBuffer()));
  runUntilNoted("note:", 2);
  EXPECT_EQ(silent->call("echo:", {Value(1)}, 60s), MessageResult(1));
}

TEST_F(DBusPeerAccountsTest, UnfinishedMessagesOfAUserAreLimited) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  open();
  const std::string frame = largeFrame();
  const std::string unfinished = frame.substr(0, frame.size() - 1);
  std::vector<std::unique_ptr<RawPeer>> peers;
  // All connect first, because the user has nothing left for that afterwards.
  while (peers.size() * unfinished.size() <= kMaxPeerBytesOfUser) {
    peers.push_back(connectAsOrdinaryUser());
  }
  ASSERT_FALSE(HasFailure());
  for (const auto& peer : peers) peer->write(unfinished);
  EXPECT_TRUE(awaitCloseOfAny(peers));
  EXPECT_TRUE(isServed());
}

TEST_F(DBusPeerAccountsTest, TheConnectionsOfAUserAreLimited) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  open();
  std::vector<std::unique_ptr<RawPeer>> peers;
  for (std::size_t i = 0; i < kMaxPeerConnectionsOfUser; ++i) {
    peers.push_back(connectAsOrdinaryUser());
  }
  ASSERT_FALSE(HasFailure());
  EXPECT_TRUE(isOrdinaryUserRefused());
  EXPECT_TRUE(isServed());
  RawPeer(path()).authenticate();
}

// A server with few connections for each user.
class DBusPeerFewConnections : public DBusPeerAccountsTest {
 protected:
  static constexpr std::size_t kMost = 2;
  DBusPeerFewConnections()
      : DBusPeerAccountsTest(std::make_unique<PeerThreads>(std::make_shared<PeerAccounts>(
            ::geteuid(),
            PeerAccounts::Limits{.user = ofConnections(kMost), .all = ofConnections(2 * kMost)}))) {
  }
  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    open();
  }
  auto connectHereAsOrdinaryUser() {
    const AsOrdinaryUser user;
    return harness_->here().connect(path(), {.timeout = 60s});
  }

 private:
  static PeerCost ofConnections(std::size_t connections) {
    return {.connections = connections, .descriptors = 1000, .bytes = 1 << 20, .calls = 1000};
  }
};

TEST_F(DBusPeerFewConnections, AnEndMakesRoom) {
  const auto first = connectAsOrdinaryUser();
  auto second = connectAsOrdinaryUser();
  EXPECT_TRUE(isOrdinaryUserRefused());
  EXPECT_TRUE(isServed());
  RawPeer(path()).authenticate();  // Root has no limit.
  runUntilNoted("client died");
  second.reset();
  runUntilNoted("client died", 2);
  second = connectAsOrdinaryUser();
}

TEST_F(DBusPeerFewConnections, AnEndedOneCountsUntilItIsAnswered) {
  const auto other = connectAsOrdinaryUser();
  auto asked = connectHereAsOrdinaryUser();
  ASSERT_TRUE(asked);
  (*asked)->callAsync("keep", {}, 60s, [](const MessageResult&) {});
  runUntilNoted("kept");
  asked->reset();
  runUntilNoted("client died");
  EXPECT_FALSE(connectHereAsOrdinaryUser());
  harness_->there([this](PeerTransport&) { server_.kept.clear(); });
  EXPECT_TRUE(connectHereAsOrdinaryUser());
}

TEST_F(DBusPeerFewConnections, AllListenersShareTheAccount) {
  const std::string other = harness_->path("other");
  std::unique_ptr<PeerListener> listener;
  harness_->there([&](PeerTransport& there) {
    auto made = there.listen(other, {.audience = PeerAudience::all()}, [](auto) {});
    ASSERT_TRUE(made);
    listener = std::move(*made);
  });
  const auto first = connectAsOrdinaryUser();
  const auto second = connectAsOrdinaryUser();
  {
    const AsOrdinaryUser user;
    EXPECT_TRUE(RawPeer(other).awaitClose());
  }
  harness_->there([&](PeerTransport&) { listener.reset(); });
}

}  // namespace
}  // namespace platform
