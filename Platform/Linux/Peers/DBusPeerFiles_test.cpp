// Memory files that the peer has not read yet, and descriptors that have not been sent yet.

#include <fstream>
#include <string>
#include <thread>

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Linux/Sockets/SocketEndpoint.h"
#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerLimits.h"

namespace platform {
namespace {

constexpr std::size_t kLarge = 2 * kMaxPeerMessageBytes;

class DBusPeerFilesTest : public testing::Test, protected PeerTransportBed {
 protected:
  DBusPeerFilesTest() : PeerTransportBed(std::make_unique<PeerThreads>()) {}

  Result<void> sendNote(std::size_t dataBytes) {
    return client_->send("note:", {Value(Data(dataBytes))});
  }
};

// Waits until the thread sleeps.
void awaitSleepOf(pid_t thread) {
  for (std::string state; state != "S";) {
    std::ifstream stat("/proc/self/task/" + std::to_string(thread) + "/stat");
    std::string text;
    std::getline(stat, text);
    state = text.substr(text.rfind(')') + 2, 1);
    std::this_thread::yield();
  }
}

TEST_F(DBusPeerFilesTest, ACallContinuesWhenTheFilesBeforeItAreRead) {
  start();
  settle();
  harness_->hang();
  std::size_t sent = 0;
  while (sendNote(kLarge)) ++sent;
  EXPECT_EQ(sent, kMaxPeerMemoryFileBytes / kLarge - 1);
  const Value argument(Data(kLarge, std::uint8_t{0x5a}));
  {
    const std::jthread waker([this, caller = ::gettid()] {
      awaitSleepOf(caller);
      harness_->goOn();
    });
    EXPECT_EQ(call("echo:", {argument}, 30s), MessageResult(argument));
  }
  EXPECT_EQ(journal_.count("note:"), sent);
}

TEST_F(DBusPeerFilesTest, ACallBehindUnreadFilesTimesOut) {
  start();
  settle();
  harness_->hang();
  while (sendNote(kLarge)) continue;
  EXPECT_EQ(call("echo:", {Value(Data(kLarge))}, 10ms).error().name, kNSPortTimeoutException);
}

TEST_F(DBusPeerFilesTest, TheBytesOfUnreadFilesAreLimited) {
  start();
  const auto probe = encodeMessage("note:", {Value(Data(kLarge))}, PeerMessageKind::kOneWay);
  ASSERT_TRUE(probe);
  const std::size_t frame = probe->fileBytes - kLarge;
  std::size_t noted = 0;
  for (const std::size_t total :
       {kMaxPeerMemoryFileBytes - 1, kMaxPeerMemoryFileBytes, kMaxPeerMemoryFileBytes + 1}) {
    settle();
    harness_->hang();
    ASSERT_TRUE(sendNote(kLarge));
    const bool fits = total <= kMaxPeerMemoryFileBytes;
    const auto second = sendNote(total - kLarge - 2 * frame);
    EXPECT_EQ(second.has_value(), fits) << total;
    if (!second) {
      EXPECT_EQ(second.error().code, ErrorCode::kExhausted);
    }
    harness_->goOn();
    noted += fits ? 2 : 1;
    runUntilNoted("note:", noted);
  }
  EXPECT_TRUE(sendNote(kLarge));
}

// Its socket is never empty: there is always one more file than it has read.
TEST_F(DBusPeerFilesTest, ABusyPeerGetsAnyNumberOfFilesInSequence) {
  start();
  RawPeer peer(path());
  peer.authenticate();
  runUntilNoted("connected", 2);
  constexpr std::size_t kFiles = 4 * kMaxPeerMemoryFileBytes / kLarge;
  for (std::size_t i = 0; i < kFiles; ++i) {
    harness_->there([this](PeerTransport&) {
      const auto sent = server_.connections.back()->send("note:", {Value(Data(kLarge))});
      EXPECT_TRUE(sent) << describe(sent.error());
    });
    if (HasFailure()) return;
    if (i > 0) peer.readMessage();
  }
  // It stops reading: the limit of unread files does not depend on the earlier ones.
  std::size_t unread = 1;
  harness_->there([&](PeerTransport&) {
    while (server_.connections.back()->send("note:", {Value(Data(kLarge))})) ++unread;
  });
  EXPECT_EQ(unread, kMaxPeerMemoryFileBytes / kLarge - 1);
}

// Descriptors that can't be sent yet, because the socket is full.
class DBusPeerEndpointsTest : public DBusPeerFilesTest {
 protected:
  void startWithEndpoints() {
    listen({.contents = PeerMessageContents::kValuesAndEndpoints});
    client_ = connect({.timeout = 60s, .contents = PeerMessageContents::kValuesAndEndpoints});
    ASSERT_TRUE(client_);
    // Nobody connects to it.
    const TemporaryFolder births;
    const auto made =
        SocketEndpoint::make(births.path(), {}, [](const std::string& path) -> Result<void> {
          EXPECT_EQ(::mknod(path.c_str(), S_IFSOCK | 0600, 0), 0);
          return {};
        });
    ASSERT_TRUE(made) << describe(made.error());
    endpoint_ = Value(std::shared_ptr<const RemoteObject>(made->endpoint));
  }

  // The peer reads nothing, and libdbus queues the messages that follow.
  void fillSocket() {
    settle();
    harness_->hang();
    ASSERT_TRUE(sendNote(700'000));
  }
  Result<void> sendEndpoints(std::size_t count) {
    return client_->send("note:", {Value(Array(count, endpoint_))});
  }

  Value endpoint_;
};

TEST_F(DBusPeerEndpointsTest, TheNumberOfUnsentDescriptorsIsLimited) {
  startWithEndpoints();
  fillSocket();
  for (std::size_t i = 0; i < kMaxPeerDescriptors; ++i) EXPECT_TRUE(sendEndpoints(1)) << i;
  const auto refused = sendEndpoints(1);
  ASSERT_FALSE(refused);
  EXPECT_EQ(refused.error().code, ErrorCode::kExhausted);
  EXPECT_TRUE(sendNote(1));  // A message without descriptors has room.
  harness_->goOn();
  runUntilNoted("note:", kMaxPeerDescriptors + 2);
  EXPECT_TRUE(sendEndpoints(1));
}

TEST_F(DBusPeerEndpointsTest, AllDescriptorsOfAMessageCount) {
  startWithEndpoints();
  std::size_t noted = 0;
  for (const std::size_t total :
       {kMaxPeerDescriptors - 1, kMaxPeerDescriptors, kMaxPeerDescriptors + 1}) {
    fillSocket();
    ASSERT_TRUE(sendEndpoints(10));
    const bool fits = total <= kMaxPeerDescriptors;
    EXPECT_EQ(sendEndpoints(total - 10).has_value(), fits) << total;
    harness_->goOn();
    noted += fits ? 3 : 2;
    runUntilNoted("note:", noted);
  }
}

TEST_F(DBusPeerEndpointsTest, ACallWaitsUntilTheDescriptorsBeforeItAreSent) {
  startWithEndpoints();
  fillSocket();
  ASSERT_TRUE(sendEndpoints(kMaxPeerDescriptors));
  EXPECT_EQ(call("echo:", {endpoint_}, 10ms).error().name, kNSPortTimeoutException);
  const std::jthread waker([this, caller = ::gettid()] {
    awaitSleepOf(caller);
    harness_->goOn();
  });
  const auto answer = call("echo:", {endpoint_}, 30s);
  ASSERT_TRUE(answer) << answer.error().reason;
  EXPECT_TRUE(endpointIn(*answer));
}

TEST_F(DBusPeerEndpointsTest, APeerThatDoesNotReadDescriptorsIsDisconnected) {
  startWithEndpoints();
  noteDeath(*client_);
  constexpr std::size_t kCalls = kMaxPeerDescriptors + 2;
  for (std::size_t i = 0; i < kCalls; ++i) {
    client_->callAsync("keep", {}, Duration::max(), [](const MessageResult&) {});
  }
  runUntilNoted("kept", kCalls);
  // This side does not read while its loop hangs.
  harness_->there([&](PeerTransport&) {
    ASSERT_EQ(server_.kept.size(), kCalls);
    EXPECT_TRUE(server_.kept.front()->answer(Value(Data(700'000))));  // Fills the socket.
    for (std::size_t i = 1; i + 1 < kCalls; ++i) {
      EXPECT_TRUE(server_.kept[i]->answer(endpoint_)) << i;
    }
    const auto refused = server_.kept.back()->answer(endpoint_);
    ASSERT_FALSE(refused);
    EXPECT_EQ(refused.error().code, ErrorCode::kExhausted);
    server_.kept.clear();
  });
  runUntilNoted("death");
}

}  // namespace
}  // namespace platform
