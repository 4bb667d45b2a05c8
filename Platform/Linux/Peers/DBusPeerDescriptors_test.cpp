// Descriptors of other users, whose closing can block the process that gets them.

#include <cerrno>
#include <string_view>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Peers/OtherUsers_fixture.h"
#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {
namespace {

using namespace std::string_view_literals;

class DBusPeerDescriptorsTest : public testing::Test, protected PeerTransportBed {
 protected:
  DBusPeerDescriptorsTest() : PeerTransportBed(std::make_unique<PeerThreads>()) {}

  void SetUp() override {
    if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
    start({.audience = PeerAudience::all()});
    ASSERT_EQ(::chmod(path().substr(0, path().rfind('/')).c_str(), 0711), 0);
  }

  // Since Linux 6.16. Older kernels let every peer pass descriptors.
  static bool kernelRefusesDescriptors() {
    constexpr int kPassRights = 83;  // SO_PASSRIGHTS
    int isOn = 0;
    socklen_t size = sizeof isOn;
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    return ::getsockopt(socket.get(), SOL_SOCKET, kPassRights, &isOn, &size) == 0;
  }
};

TEST_F(DBusPeerDescriptorsTest, ANewPeerCanPassNone) {
  if (!kernelRefusesDescriptors()) GTEST_SKIP() << "this kernel lets every peer pass descriptors";
  {
    const AsOrdinaryUser user;
    RawPeer peer(path());
    EXPECT_FALSE(peer.writeWith("\0"sv, {STDIN_FILENO}));
    EXPECT_EQ(errno, EPERM);
  }
  RawPeer ofRoot(path());
  EXPECT_FALSE(ofRoot.writeWith("\0"sv, {STDIN_FILENO}));
}

TEST_F(DBusPeerDescriptorsTest, AnAdmittedPeerOfAnotherUserCanPassNone) {
  {
    const AsOrdinaryUser user;
    RawPeer peer(path());
    peer.authenticate();
    const bool isSent = peer.writeWith("l"sv, {STDIN_FILENO});
    if (kernelRefusesDescriptors()) {
      EXPECT_FALSE(isSent);
      EXPECT_EQ(errno, EPERM);
    } else {
      EXPECT_TRUE(peer.awaitClose());
    }
  }
  EXPECT_EQ(call("echo:", {Value(1)}), MessageResult(1));
}

TEST_F(DBusPeerDescriptorsTest, ALargeMessageToAnotherUserIsNotSent) {
  const AsOrdinaryUser user;
  const auto client = connect();
  ASSERT_TRUE(client);
  const auto large = Value(Data(kMaxPeerMessageBytes));
  const MessageResult answer = client->call("echo:", {large}, 60s);
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().name, kNSInvalidArgumentException);
  EXPECT_EQ(client->call("echo:", {Value(1)}, 60s), MessageResult(1));
}

TEST_F(DBusPeerDescriptorsTest, ALargeMessageOfRootArrives) {
  const auto large = Value(Data(kMaxPeerMessageBytes));
  EXPECT_EQ(call("echo:", {large}), MessageResult(large));
}

}  // namespace
}  // namespace platform
