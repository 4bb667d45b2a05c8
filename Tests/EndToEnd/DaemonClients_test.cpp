// Clients that misbehave when they get the notifications of services.

#include <csignal>
#include <list>
#include <optional>

#include <gmock/gmock.h>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tests/EndToEnd/CrudeClient.h"
#include "Tests/EndToEnd/DaemonFixture.h"

namespace platform {
namespace {

using testing::ElementsAre;

class DaemonClients : public DaemonFixture {
 protected:
  static constexpr char kAbandoned[] = "Did remove an abandoned remote user client";

  CrudeClient& addCrudeClient(const Array& protocols) {
    CrudeClient& client = crude_.emplace_back(root_, UserInterfaceClient::kServer);
    client.authenticate();
    client.registerClient(protocols);
    return client;
  }

  std::list<CrudeClient> crude_;
};

TEST_F(DaemonClients, AMisbehavingClientIsDroppedAndTheOthersNotified) {
  start(1);
  const Array conforming{kORBServiceManagerUserInterfaceDelegateProtocol};
  // Its loop has stopped.
  const auto stopped = std::move(*AsioRunLoop::create());
  std::optional<UserInterfaceClient> hanging(std::in_place, root_, *stopped);
  hanging->registerClient();
  // One ends before its notification, one during it.
  addCrudeClient(conforming).peer().close();
  addCrudeClient(conforming).answerWith(std::nullopt);
  // Three invalid answers: an exception, an invalid reference, and a reference with a key of its
  // own.
  addCrudeClient(conforming).answerWith(std::unexpected(NSException{"Garbage", "no reason", {}}));
  addCrudeClient(conforming).answerWith(Value(Dictionary{{"NSDistantObject", "garbage"}}));
  addCrudeClient(conforming)
      .answerWith(Value(Dictionary{{"NSDistantObject", Value(Dictionary{{"Number", -1}})}}));
  // Implements another protocol.
  addCrudeClient({"NSObject"}).answerWith(Value());
  UserInterfaceClient last(root_);
  last.registerClient();

  const std::string label = DaemonRoot::label(0);
  const ProcessId now = expectKilledServiceIsReported(label);
  root_.await("the last client to be told", [&] { return last.hasNotice(label, 1); });
  EXPECT_THAT(last.notices(), ElementsAre(Notice{label, 0, 0}, Notice{label, 1, now}));
  root_.awaitLog(kAbandoned, 1 + crude_.size());

  expectKilledServiceIsReported(label);
  EXPECT_EQ(root_.logCount(kAbandoned), 1 + crude_.size());
}

TEST_F(DaemonClients, AClientMayAskFromInsideItsNotification) {
  start(1);
  const std::string label = DaemonRoot::label(0);
  UserInterfaceClient asking(root_);
  asking.registerClient();
  std::optional<MessageResult> answer;
  asking.onNotice = [&](const Notice&) {
    if (!answer) answer = asking.ask("pidForService:", {label});
  };
  const ProcessId now = expectKilledServiceIsReported(label);
  root_.await("the asking client's notices", [&] { return asking.hasNotice(label, 1); });
  ASSERT_TRUE(answer);
  EXPECT_TRUE(*answer) << answer->error().name;
  EXPECT_EQ(asking.notices(), (std::vector<Notice>{{label, 0, 0}, {label, 1, now}}));
  EXPECT_TRUE(asking.isConnected());
  EXPECT_EQ(root_.logCount(kAbandoned), 0u);
  expectKilledServiceIsReported(label);
}

}  // namespace
}  // namespace platform
