// The names of listeners, and the bytes that a peer may leave unread.

#include <filesystem>
#include <string>
#include <thread>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {
namespace {

class DBusPeerNamesTest : public testing::Test, protected PeerTransportBed {
 protected:
  DBusPeerNamesTest() : PeerTransportBed(std::make_unique<PeerThreads>()) {}

  Result<std::unique_ptr<PeerListener>> listenAt(const std::string& where,
                                                 PeerAudience audience = {}) {
    return processes_.here().listen(where, {.audience = audience}, [](auto) {});
  }

  // Leaves a socket as a killed process does.
  void leaveSocket(const std::string& where) {
    const UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    where.copy(address.sun_path, sizeof(address.sun_path) - 1);
    ASSERT_EQ(::bind(socket.get(), reinterpret_cast<sockaddr*>(&address), sizeof(address)), 0);
    ASSERT_EQ(::listen(socket.get(), 1), 0);
  }

  std::vector<std::string> names() {
    std::vector<std::string> found;
    for (const auto& entry : std::filesystem::directory_iterator(processes_.folder().path())) {
      found.push_back(entry.path().filename());
    }
    std::ranges::sort(found);
    return found;
  }

  PeerThreads& processes_ = static_cast<PeerThreads&>(*harness_);
};

TEST_F(DBusPeerNamesTest, ANameHasItsModeAndEndsWithItsListener) {
  for (const PeerAudience& audience : {PeerAudience(), PeerAudience::all()}) {
    auto listener = listenAt(path(), audience);
    ASSERT_TRUE(listener) << describe(listener.error());
    EXPECT_EQ(names(), (std::vector<std::string>{".births", "server"}));
    struct stat status{};
    ASSERT_EQ(::stat(path().c_str(), &status), 0);
    EXPECT_TRUE(S_ISSOCK(status.st_mode));
    EXPECT_EQ(status.st_mode & 07777u, audience.socketMode());
    listener->reset();
    EXPECT_EQ(names(), std::vector<std::string>{".births"});
  }
}

TEST_F(DBusPeerNamesTest, TheSocketOfADeadOwnerIsReplaced) {
  leaveSocket(path());
  EXPECT_EQ(processes_.here().connect(path(), {}).error().kind,
            PeerConnectFailure::Kind::kNobodyThere);
  start();
  EXPECT_EQ(call("echo:", {Value(1)}), MessageResult(1));
  EXPECT_EQ(names(), (std::vector<std::string>{".births", "server"}));
}

TEST_F(DBusPeerNamesTest, OnlyOneOfTwoReplacesALeftoverSocket) {
  for (int round = 0; round < 20; ++round) {
    leaveSocket(path());
    Result<std::unique_ptr<PeerListener>> theirs;
    processes_.loopThere().post([&] { harness_->changed(); });
    std::thread other([&] {
      processes_.there(
          [&](PeerTransport& there) { theirs = there.listen(path(), {}, [](auto) {}); });
    });
    auto ours = listenAt(path());
    other.join();
    ASSERT_NE(ours.has_value(), theirs.has_value());
    // EWOULDBLOCK if the first holds the lock for longer than the second waits for it.
    EXPECT_THAT((ours ? theirs : ours).error().osError, testing::AnyOf(EADDRINUSE, EWOULDBLOCK));
    if (ours) ours->reset();
    processes_.there([&](PeerTransport&) {
      if (theirs) theirs->reset();
    });
    EXPECT_EQ(names(), std::vector<std::string>{".births"});
  }
}

TEST_F(DBusPeerNamesTest, AFileThatIsNoSocketIsKept) {
  processes_.folder().write("server", "content");
  const auto listener = listenAt(path());
  ASSERT_FALSE(listener);
  EXPECT_EQ(listener.error().code, ErrorCode::kInvalid);
  EXPECT_EQ(names(), (std::vector<std::string>{".births", "server"}));
  const auto connection = processes_.here().connect(path(), {});
  ASSERT_FALSE(connection);
  EXPECT_EQ(connection.error().kind, PeerConnectFailure::Kind::kSystem);
}

TEST_F(DBusPeerNamesTest, ANameThatAnotherHasTakenIsKept) {
  auto listener = listenAt(path());
  ASSERT_TRUE(listener);
  ASSERT_EQ(::unlink(path().c_str()), 0);
  const auto another = listenAt(path());
  ASSERT_TRUE(another);
  listener->reset();
  EXPECT_EQ(names(), (std::vector<std::string>{".births", "server"}));
}

TEST_F(DBusPeerNamesTest, ANameMayBeLongerThanASocketAddress) {
  std::string deep = processes_.folder().path();
  while (deep.size() < 300) {
    deep += "/a folder with a long name, and spaces";
    ASSERT_EQ(::mkdir(deep.c_str(), 0700), 0);
  }
  const std::string where = deep + "/" + std::string(255, 'n');
  processes_.there([&](PeerTransport& there) {
    auto listener = there.listen(where, {}, [this](std::unique_ptr<PeerConnection> peer) {
      peer->setHandlers(
          {.message = [](PeerMessage message) { EXPECT_TRUE(message.reply->answer(Value("far"))); },
           .death = {}});
      server_.connections.push_back(std::move(peer));
    });
    ASSERT_TRUE(listener) << describe(listener.error());
    server_.listener = std::move(*listener);
  });
  const auto connection = processes_.here().connect(where, {.timeout = 60s});
  ASSERT_TRUE(connection);
  EXPECT_EQ((*connection)->call("where", {}, 60s), MessageResult("far"));
  EXPECT_EQ(listenAt(where + "n").error().code, ErrorCode::kInvalid);
}

TEST_F(DBusPeerNamesTest, AnInvalidNameIsRefusedAndLeavesNothing) {
  EXPECT_EQ(listenAt(processes_.folder().path("none/server")).error().code, ErrorCode::kNotFound);
  for (const std::string& name :
       {std::string(".hidden"), std::string(".."), std::string(), std::string("a\0b", 3)}) {
    EXPECT_EQ(listenAt(processes_.folder().path(name)).error().code, ErrorCode::kInvalid) << name;
  }
  EXPECT_TRUE(names().empty());
}

// The first answer counts as a whole in libdbus until its last byte is in the socket, which is too
// small for it.
TEST_F(DBusPeerNamesTest, TheBytesOfUnreadAnswersAreLimited) {
  start();
  noteDeath(*client_);
  const Value first(Data(700'000));
  const auto encoded = encodeAnswer(1, MessageResult(first));
  ASSERT_TRUE(encoded);
  const std::size_t unread = RawPeer::marshalled(encoded->message.get()).size();
  const std::size_t room =
      kMaxPeerUnreadBytes - unread - 8 - kPeerMessageHeaderBytes;  // for the second answer's data
  for (const int excess : {-1, 0, 1}) {
    SCOPED_TRACE(excess);
    const std::size_t kept = journal_.count("kept");
    for (int i = 0; i < 2; ++i) {
      client_->callAsync("keep", {}, Duration::max(), [this](const MessageResult& result) {
        journal_.note(result ? "answered" : result.error().name);
      });
    }
    runUntilNoted("kept", kept + 2);
    processes_.there([&](PeerTransport&) {
      ASSERT_EQ(server_.kept.size(), 2u);
      EXPECT_TRUE(server_.kept[0]->answer(first));
      const Value second(Data(room + static_cast<std::size_t>(excess)));
      EXPECT_EQ(server_.kept[1]->answer(second).has_value(), excess <= 0);
      server_.kept.clear();
    });
    if (excess <= 0) {
      runUntilNoted("answered", 2 * static_cast<std::size_t>(excess + 2));
    } else {
      runUntilNoted("death");
    }
  }
}

}  // namespace
}  // namespace platform
