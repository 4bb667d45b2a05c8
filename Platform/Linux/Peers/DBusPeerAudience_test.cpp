// The users at the two ends of a connection, by the kernel's word.

#include <cerrno>
#include <cstring>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/Peers/OtherUsers_fixture.h"
#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Testing/Machine/DescriptorShortage.h"

namespace platform {
namespace {

class DBusPeerAudienceTest : public testing::Test, protected PeerTransportBed {
 protected:
  static constexpr std::uint32_t kGroup = 54321;

  DBusPeerAudienceTest() : PeerTransportBed(std::make_unique<PeerThreads>()) {
    EXPECT_EQ(::chmod(path().substr(0, path().rfind('/')).c_str(), 0711), 0);
  }

  void listenFor(PeerAudience audience) {
    harness_->there([this](PeerTransport&) { server_.listener.reset(); });
    listen({.audience = audience, .excluded = [this](const PeerCredentials& peer) {
              journal_.note("excluded " + std::to_string(peer.user));
            }});
  }
  struct stat socket() {
    struct stat status{};
    EXPECT_EQ(::stat(path().c_str(), &status), 0);
    return status;
  }
  // As an administrator may: the first gate is open.
  void openToAll() { EXPECT_EQ(::chmod(path().c_str(), 0666), 0); }

  std::vector<PeerState> statesOfClients() {
    std::vector<PeerState> states;
    harness_->there([&](PeerTransport&) {
      for (const auto& connection : server_.connections) states.push_back(connection->peerState());
    });
    return states;
  }

  std::optional<PeerConnectFailure> failureAsUser(const std::vector<gid_t>& groups = {}) {
    const AsOrdinaryUser user(groups);
    auto connection = harness_->here().connect(path(), {.timeout = 60s});
    if (connection) return std::nullopt;
    return connection.error();
  }
};

TEST_F(DBusPeerAudienceTest, TheModeIsTheFirstGate) {
  listenFor({});
  EXPECT_EQ(socket().st_mode & 07777u, 0600u);
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  listenFor({.everybody = false, .user = {}, .group = kGroup});
  EXPECT_EQ(socket().st_mode & 07777u, 0660u);
  EXPECT_EQ(socket().st_gid, kGroup);
  EXPECT_EQ(failureAsUser()->error.osError, EACCES);
  EXPECT_FALSE(failureAsUser({kGroup}));
  listenFor(PeerAudience::all());
  EXPECT_EQ(socket().st_mode & 07777u, 0666u);
  EXPECT_FALSE(failureAsUser());
  EXPECT_EQ(journal_.count("excluded 65534"), 0u);
}

TEST_F(DBusPeerAudienceTest, TheKernelsWordIsTheSecondGate) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  listenFor({});
  openToAll();
  EXPECT_EQ(failureAsUser()->kind, PeerConnectFailure::Kind::kRefused);
  EXPECT_EQ(journal_.count("excluded 65534"), 1u);
  EXPECT_EQ(journal_.count("connected"), 0u);
  EXPECT_TRUE(connect());
}

TEST_F(DBusPeerAudienceTest, OnlyMembersOfTheGroupAreAdmittedBesides) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  listenFor({.everybody = false, .user = {}, .group = kGroup});
  openToAll();
  EXPECT_EQ(failureAsUser()->kind, PeerConnectFailure::Kind::kRefused);
  EXPECT_EQ(failureAsUser({kGroup + 1})->kind, PeerConnectFailure::Kind::kRefused);
  EXPECT_FALSE(failureAsUser({kGroup - 1, kGroup}));
  std::vector<gid_t> many(100, 7);
  many.push_back(kGroup);
  EXPECT_FALSE(failureAsUser(many));
}

// The thread is an ordinary user's while it connects, and the process root's.
TEST_F(DBusPeerAudienceTest, AProcessWithAnotherUserThanWhenItConnectedIsNoticed) {
  start({.audience = PeerAudience::all()});
  EXPECT_TRUE(call("echo:", {Value(1)}));
  EXPECT_EQ(statesOfClients(), std::vector{PeerState::kUnchanged});
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  const auto connectAsUser = [this] {
    const AsOrdinaryUser user;
    return connect();
  };
  const auto other = connectAsUser();
  ASSERT_TRUE(other);
  EXPECT_TRUE(other->call("echo:", {Value(1)}, 60s));
  EXPECT_EQ(statesOfClients(), (std::vector{PeerState::kUnchanged, PeerState::kOtherUser}));
}

TEST_F(DBusPeerAudienceTest, AConnectionThatWasPassedOnIsNoticed) {
  start({.audience = PeerAudience::all()});
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  path().copy(address.sun_path, sizeof address.sun_path - 1);
  const pid_t maker = ::fork();
  if (maker == 0) {
    ::_exit(::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) ==
                    0
                ? 0
                : 1);
  }
  int status = -1;
  ASSERT_EQ(::waitpid(maker, &status, 0), maker);
  ASSERT_EQ(status, 0);
  RawPeer holder(std::move(socket));
  holder.authenticate();
  EXPECT_EQ(statesOfClients(), (std::vector{PeerState::kUnchanged, PeerState::kPassedOn}));
}

// The connections exist, and work without further descriptors.
TEST_F(DBusPeerAudienceTest, WithoutDescriptorsTheUserOfAProcessIsUnknown) {
#ifdef __SANITIZE_ADDRESS__
  // The sanitizer's check of types opens a pipe of its own, which fails without descriptors.
  GTEST_SKIP() << "the sanitizer needs descriptors itself";
#endif
  start({.audience = PeerAudience::all()});
  EXPECT_TRUE(call("echo:", {Value(1)}));
  {
    const DescriptorShortage shortage(DescriptorShortage::Left::kNone);
    EXPECT_EQ(statesOfClients(), std::vector{PeerState::kUnknown});
  }
  {
    const DescriptorShortage shortage(DescriptorShortage::Left::kOne);
    EXPECT_EQ(statesOfClients(), std::vector{PeerState::kUnchanged});
  }
}

// An ordinary user's listener in the place of the server.
class OtherUsersListener {
 public:
  explicit OtherUsersListener(const std::string& path)
      : socket_(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0)) {
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    EXPECT_EQ(::bind(socket_.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address),
              0);
    const AsOrdinaryUser user;
    EXPECT_EQ(::listen(socket_.get(), 8), 0);
  }

  // The bytes that its oldest client has sent.
  ssize_t received() {
    const UniqueFd client(::accept4(socket_.get(), nullptr, nullptr, SOCK_CLOEXEC));
    EXPECT_TRUE(client);
    char bytes[64];
    return ::recv(client.get(), bytes, sizeof bytes, 0);
  }

 private:
  UniqueFd socket_;
};

TEST_F(DBusPeerAudienceTest, NothingIsSentToAServerOfAnotherUser) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  OtherUsersListener impostor(path());
  const auto connection = harness_->here().connect(path(), {.timeout = 60s});
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().kind, PeerConnectFailure::Kind::kRefused);
  EXPECT_EQ(connection.error().error.osError, EPERM);
  EXPECT_EQ(impostor.received(), 0);
}

TEST_F(DBusPeerAudienceTest, AServerOfANamedUserIsTrusted) {
  if (::geteuid() != 0) GTEST_SKIP() << "only root can become another user";
  OtherUsersListener server(path());
  const PeerAudience servers{.everybody = false, .user = AsOrdinaryUser::kUser, .group = {}};
  const auto connection =
      harness_->here().connect(path(), {.timeout = Duration::zero(), .servers = servers});
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().kind, PeerConnectFailure::Kind::kTimedOut);
}

}  // namespace
}  // namespace platform
