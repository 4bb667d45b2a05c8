// Clients that send much and end.

#include <cstdint>
#include <functional>
#include <future>
#include <memory>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include <gtest/gtest.h>
#include <linux/sockios.h>
#include <sys/ioctl.h>

#include "Platform/Linux/Peers/DBusMessages.h"
#include "Platform/Linux/Peers/PeerThreads_contract.h"
#include "Platform/Linux/Peers/RawPeer_contract.h"
#include "Platform/Peers/PeerTransportFixture_contract.h"

namespace platform {
namespace {

class DBusPeerFloodTest : public testing::Test, protected PeerTransportBed {
 protected:
  DBusPeerFloodTest() : PeerTransportBed(std::make_unique<PeerThreads>()) {
    harness_->there([this](PeerTransport& there) {
      auto listener =
          there.listen(flooded_, {}, [this](std::unique_ptr<PeerConnection> connection) {
            connection->admit();
            connection->setHandlers(
                {.message = [this](const PeerMessage& message) { count(message); },
                 .death = [this](const Error&) { ++deaths_; }});
            connections_.push_back(std::move(connection));
          });
      ASSERT_TRUE(listener) << describe(listener.error());
      listener_ = std::move(*listener);
    });
  }
  ~DBusPeerFloodTest() override {
    harness_->there([this](PeerTransport&) {
      connections_.clear();
      listener_.reset();
    });
  }

  std::unique_ptr<PeerConnection> connectToFlooded() {
    auto connection = harness_->here().connect(flooded_, {.timeout = 60s});
    if (!connection) ADD_FAILURE() << describe(connection.error().error);
    return connection ? std::move(*connection) : nullptr;
  }

  AsioRunLoop& loopThere() { return static_cast<PeerThreads&>(*harness_).loopThere(); }

  const std::string flooded_ = harness_->path("flooded");
  std::function<void()> onFirst_;  // called by the other process for its first one-way message

 private:
  // The answer to a two-way message is how many one-way ones were delivered, and how many
  // connections have ended.
  void count(const PeerMessage& message) {
    if (!message.reply && delivered_++ == 0 && onFirst_) onFirst_();
    if (message.reply) std::ignore = message.reply->answer(Array{delivered_, deaths_});
  }

  // The other process's objects, used only by it.
  std::unique_ptr<PeerListener> listener_;
  std::vector<std::unique_ptr<PeerConnection>> connections_;
  std::int64_t delivered_ = 0;
  std::int64_t deaths_ = 0;
};

// Between two answers, the server takes a few messages of each ended client, and not all of them.
TEST_F(DBusPeerFloodTest, ManyClientsThatEndAtOnceLeaveAnotherItsTurns) {
  constexpr int kClients = 200;
  constexpr int kMessages = 50;
  const auto asking = connectToFlooded();
  std::vector<std::unique_ptr<PeerConnection>> clients;
  for (int i = 0; i < kClients; ++i) clients.push_back(connectToFlooded());
  ASSERT_FALSE(HasFailure());
  harness_->hang();
  for (const auto& client : clients) {
    for (int i = 0; i < kMessages; ++i) ASSERT_TRUE(client->send("note:", {Value(i)}));
  }
  clients.clear();
  harness_->goOn();
  std::int64_t delivered = 0;
  for (std::int64_t deaths = 0; deaths < kClients;) {
    const MessageResult answer = asking->call("count", {}, 60s);
    ASSERT_TRUE(answer);
    const std::int64_t now = *answer->array()->at(0).integer();
    EXPECT_LE(now - delivered, kClients * 20);
    delivered = now;
    deaths = *answer->array()->at(1).integer();
  }
  EXPECT_EQ(delivered, kClients * kMessages);
}

// Otherwise the messages of many busy clients would fill the memory instead of their sockets.
TEST_F(DBusPeerFloodTest, ABusyServerReadsAConnectionOncePerTurn) {
  constexpr int kParts = 4;  // the socket has room for them
  constexpr int kMessagesPerPart = 60;
  constexpr int kOtherWork = 1000;
  RawPeer client(flooded_);
  client.authenticate();
  const auto note = encodeMessage("note:", {Value(1)}, PeerMessageKind::kOneWay);
  ASSERT_TRUE(note);
  std::string part;
  for (int i = 0; i < kMessagesPerPart; ++i) part += RawPeer::marshalled(note->message.get());
  std::promise<int> unread;
  bool isOver = false;
  onFirst_ = [&] {
    isOver = true;
    int bytes = 0;
    ::ioctl(client.socket(), SIOCOUTQ, &bytes);
    unread.set_value(bytes);
  };
  harness_->hang();
  for (int i = 0; i < kParts; ++i) EXPECT_TRUE(client.write(part));
  const std::function<void()> work = [&] {
    if (!isOver) loopThere().post(work);
  };
  for (int i = 0; i < kOtherWork; ++i) loopThere().post(work);
  harness_->goOn();
  auto answer = unread.get_future();
  EXPECT_EQ(answer.wait_for(60s), std::future_status::ready);
  EXPECT_GT(answer.get(), static_cast<int>(part.size()) * kParts / 2);
  harness_->there([](PeerTransport&) {});  // Everything that refers to this test has run.
}

}  // namespace
}  // namespace platform
