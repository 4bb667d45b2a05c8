// Probes: messages that change nothing.

#include <chrono>
#include <memory>
#include <utility>
#include <vector>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObjectFixture_contract.h"

namespace {

using namespace std::chrono_literals;
using platform::MessageResult;
using platform::Value;
using testing::IsEmpty;

TEST_F(VantorDistantObjectTest, AFailedProbeIsReturnedAndChangesNothing) {
  startServer();
  const auto object = makeRetrying();
  ASSERT_TRUE(object->isProxyValid());
  const auto connection = object->connection();
  EXPECT_EQ(object->probeWithMessage("isServerUp", {}, 2s), MessageResult(Value(true)));
  const MessageResult raised = object->probeWithMessage("fail", {}, 2s);
  ASSERT_FALSE(raised);
  EXPECT_EQ(raised.error(), (platform::NSException{"ServerException", "because", {}}));
  serverTransport_.hang();
  EXPECT_EQ(timeOf([&] {
              const MessageResult late = object->probeWithMessage("isServerUp", {}, 2s);
              ASSERT_FALSE(late);
              EXPECT_EQ(late.error().name, "NSPortTimeoutException");
            }),
            2s);
  EXPECT_EQ(object->connection(), connection);
  EXPECT_TRUE(connection->isValid());
  EXPECT_EQ(connection->replyTimeout(), 300s);
  EXPECT_EQ(recentName(*object), "none");
  EXPECT_THAT(errors(), IsEmpty());
}

TEST_F(VantorDistantObjectTest, AProbeWithoutAConnectionLeavesNoneOpen) {
  startServer();
  const auto object = make();
  EXPECT_EQ(object->probeWithMessage("isServerUp", {}, 2s), MessageResult(Value(true)));
  EXPECT_EQ(object->connection(), nullptr);
  loop_.runReady();
  EXPECT_THAT(vended_->childConnections(), IsEmpty());
  stopServer();
  const MessageResult gone = object->probeWithMessage("isServerUp", {}, 2s);
  ASSERT_FALSE(gone);
  EXPECT_EQ(gone.error().name, platform::kNSInvalidSendPortException);
  EXPECT_THAT(sink_.messages(), IsEmpty());
}

TEST_F(VantorDistantObjectTest, AProbeDoesNotMarkAServerAsHung) {
  startServer();
  const auto object = make();
  serverTransport_.hang();
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(object->probeWithMessage("isServerUp", {}, 2s)); }), 2s);
  serverTransport_.goOn();
  EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true)));
}

TEST_F(VantorDistantObjectTest, AProbeDoesNotMarkAMuteServerAsHung) {
  std::vector<std::unique_ptr<platform::PeerConnection>> accepted;
  std::vector<platform::PeerMessage> kept;
  auto mute = serverTransport_.listen(pathOf(kName), {}, [&](auto peer) {
    peer->setHandlers(
        {.message = [&](auto message) { kept.push_back(std::move(message)); }, .death = {}});
    accepted.push_back(std::move(peer));
  });
  ASSERT_TRUE(mute);
  const auto object = make();
  EXPECT_EQ(timeOf([&] {
              const MessageResult late = object->probeWithMessage("isServerUp", {}, 2s);
              ASSERT_FALSE(late);
              EXPECT_EQ(late.error().name, "NSPortTimeoutException");
            }),
            2s);
  EXPECT_EQ(accepted.size(), 1u);
  kept.clear();
  accepted.clear();
  mute->reset();
  loop_.runReady();
  startServer();
  EXPECT_EQ(object->sendMessage("isServerUp"), MessageResult(Value(true)));
}

TEST_F(VantorDistantObjectTest, AProbeDoesNotWaitForAServerKnownToHang) {
  startServer();
  const auto object = make();
  serverTransport_.hang();
  object->sendMessage("isServerUp");
  EXPECT_EQ(timeOf([&] { EXPECT_FALSE(object->probeWithMessage("isServerUp", {}, 2s)); }), 0s);
  serverTransport_.goOn();
  // The probe did not clear the record either.
  object->sendMessage("isServerUp");
  EXPECT_EQ(recentName(*object), kNilProxy);
}

}  // namespace
