// The limits of one user over all its connections.

#include <memory>
#include <string>
#include <vector>

#include <gtest/gtest.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {
namespace {

std::string largeFrame() {
  const auto message =
      encodeMessage("note:", {Value(Data(kMaxPeerMessageBytes - 2 * kPeerMessageHeaderBytes))},
                    PeerMessageKind::kOneWay);
  EXPECT_TRUE(message);
  return message ? RawPeer::marshalled(message->message.get()) : std::string();
}

class DBusPeerAccountsTest : public testing::Test, protected PeerTransportBed {
 protected:
  DBusPeerAccountsTest() : PeerTransportBed(std::make_unique<PeerThreads>()) {}

  // Starts a server that everybody may reach.
  void open(PeerListenerOptions options = {}) {
    options.audience = PeerAudience::all();
    start(options);
    ASSERT_EQ(::chmod(path().substr(0, path().rfind('/')).c_str(), 0711), 0);
  }
  std::unique_ptr<RawPeer> connectAsOrdinaryUser() {
    // The other threads stay root, so the C library's function, which changes all threads, can't be
    // used.
    EXPECT_EQ(::syscall(SYS_setresuid, -1, 65534, -1), 0);
    auto peer = std::make_unique<RawPeer>(path());
    peer->authenticate();
    EXPECT_EQ(::syscall(SYS_setresuid, -1, 0, -1), 0);
    return peer;
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
  const std::string frame = largeFrame();
  EXPECT_TRUE(peer.write(frame.substr(0, frame.size() - 1)));
  EXPECT_TRUE(peer.awaitClose());
  EXPECT_TRUE(isServed());
}

TEST_F(DBusPeerAccountsTest, AnIdleConnectionHasNoTimeLimit) {
  start({.messageTime = 20ms});
  RawPeer idle(path());
  idle.authenticate();
  const auto silent = connect();
  EXPECT_TRUE(idle.write(largeFrame()));
  RawPeer late(path());
  late.authenticate();
  EXPECT_TRUE(late.write(largeFrame().substr(0, 100)));
  EXPECT_TRUE(late.awaitClose());  // By now the time of the idle one would be over, too.
  EXPECT_TRUE(idle.write(largeFrame()));
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
  EXPECT_EQ(::syscall(SYS_setresuid, -1, 65534, -1), 0);
  EXPECT_TRUE(RawPeer(path()).awaitClose());
  EXPECT_EQ(::syscall(SYS_setresuid, -1, 0, -1), 0);
  EXPECT_TRUE(isServed());
  RawPeer(path()).authenticate();
}

}  // namespace
}  // namespace platform
