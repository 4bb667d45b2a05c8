#include "Tools/servicemanagerctl/DaemonClient.h"

#include <cerrno>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Logger/Logger.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Tools/servicemanagerctl/ExitStatus.h"

namespace {

using namespace platform;
using namespace std::chrono_literals;
using testing::AllOf;
using testing::HasSubstr;
using testing::Not;

constexpr std::string_view kServices = "services";

std::string pathOf(std::string_view name) { return "/srv/root/" + std::string(name); }

ProtocolTable protocols() {
  ProtocolTable table;
  addServiceManagerProtocols(table);
  return table;
}

// The operator's program, and a program that vends the user-interface server.
class DaemonClientTest : public testing::Test, public MessageReceiver {
 protected:
  void vend(NSConnectionDelegate& delegate) {
    vended_ = daemon_.connections.makeConnection();
    vended_->setDelegate(&delegate);
    vended_->setRootObject(std::make_shared<NSProtocolChecker>(
        this, protocols_.find(kORBServiceManagerUserInterfaceProtocol)));
    ASSERT_TRUE(vended_->registerName(kUserInterfaceServer));
  }

  // For how long `action` blocked.
  template <typename Action>
  Duration timeOf(Action action) {
    const Instant start = loop_.now();
    action();
    return loop_.now() - start;
  }

  MessageResult receiveMessage(std::string_view selector, const Array& /*arguments*/) override {
    received_.emplace_back(selector);
    if (selector == "pidForService:")
      return std::unexpected(NSException{"ServerException", "because", {}});
    return Value(Dictionary{{"agent", Dictionary{}}});
  }

  FakeLogSink sink_;
  SystemLog log_{sink_, "program"};
  LoggerBinding binding_{log_};
  FakeSystemInformation system_;
  const ProtocolTable protocols_ = protocols();
  VirtualRunLoop loop_;
  FakeNotificationBus bus_{loop_};
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 0, 0}};
  FakePeerTransport daemonTransport_{network_, {200, 0, 0}};
  ConnectedProgram program_{loop_, transport_, pathOf};
  ConnectedProgram daemon_{loop_, daemonTransport_, pathOf};
  std::unique_ptr<DistributedNotificationCenter> distributed_ = bus_.makeCenter(log_);
  KLXConnectionAuthenticator authenticator_{system_};
  std::vector<std::string> received_;
  std::shared_ptr<NSConnection> vended_;
  const DaemonClient::Environment environment_{
      .objects = {loop_, program_.connections, *distributed_, program_.center, protocols_, system_},
      .transport = transport_,
      .place = pathOf,
      .root = "/srv/root"};
  DaemonClient client_{environment_, kUserInterfaceServer, kORBServiceManagerUserInterfaceProtocol};
};

TEST(RefusalOfPermission, SaysWhatToDo) {
  using Kind = PeerConnectFailure::Kind;
  const auto refusal = [](Kind kind, int number, const std::optional<std::string>& group,
                          bool isRoot) {
    return refusalOfPermission({kind, {ErrorCode::kDenied, number, "connecting"}}, "the server",
                               group, isRoot);
  };
  const auto user = refusal(Kind::kRefused, EACCES, std::nullopt, false);
  ASSERT_TRUE(user);
  EXPECT_EQ(user->exitStatus, kExitNotPermitted);
  EXPECT_TRUE(user->text.ends_with("; ask as root, or as the user whom the server runs under"));
  EXPECT_TRUE(refusal(Kind::kRefused, EACCES, "vantor", false)
                  ->text.ends_with(", or as a member of the group \"vantor\""));
  const auto root = refusal(Kind::kRefused, EACCES, "vantor", true);
  EXPECT_EQ(root->exitStatus, kExitNotPermitted);
  EXPECT_THAT(root->text, Not(HasSubstr("ask as root")));
  const auto impostor = refusal(Kind::kRefused, EPERM, "vantor", false);
  EXPECT_EQ(impostor->exitStatus, kExitNotAuthenticated);
  EXPECT_THAT(impostor->text, HasSubstr("another program than the server"));
  EXPECT_FALSE(refusal(Kind::kRefused, 0, "vantor", false));
  EXPECT_FALSE(refusal(Kind::kTimedOut, EACCES, "vantor", false));
}

TEST_F(DaemonClientTest, AsksTheServerOfTheName) {
  vend(authenticator_);
  ASSERT_TRUE(client_.connect());
  const auto services = client_.ask(kServices);
  ASSERT_TRUE(services) << services.error().text;
  EXPECT_EQ((*services)["agent"], Value(Dictionary{}));
}

TEST_F(DaemonClientTest, AOneWayMessageIsNotWaitedFor) {
  vend(authenticator_);
  ASSERT_TRUE(client_.connect());
  EXPECT_EQ(client_.ask("stopServices:", {Array{"agent"}}), Value());
  EXPECT_TRUE(received_.empty());
  const auto services = client_.ask(kServices);
  EXPECT_TRUE(services) << services.error().text;
  EXPECT_EQ(received_, (std::vector<std::string>{"stopServices:", "services"}));
}

TEST_F(DaemonClientTest, AMissingDaemonIsReportedAtOnce) {
  Answer<void> connected;
  EXPECT_EQ(timeOf([&] { connected = client_.connect(); }), 0s);
  ASSERT_FALSE(connected);
  EXPECT_EQ(connected.error().exitStatus, kExitNobodyThere);
  EXPECT_THAT(connected.error().text, AllOf(HasSubstr("below /srv/root"),
                                            HasSubstr("jobs show com.vantor.servicemanager")));
}

TEST_F(DaemonClientTest, AnotherProductsServerIsNotTrusted) {
  TokenDelegate stranger("other", "token");  // It neither knows our token nor shows its own.
  vend(stranger);
  const auto connected = client_.connect();
  ASSERT_FALSE(connected);
  EXPECT_EQ(connected.error().exitStatus, kExitNotAuthenticated);
  EXPECT_THAT(connected.error().text, HasSubstr("don't recognize each other"));
  EXPECT_TRUE(received_.empty());
}

TEST_F(DaemonClientTest, AServerThatAcceptsEverybodyIsNotTrusted) {
  class Careless final : public NSConnectionDelegate {
    bool connection(NSConnection& parent, NSConnection& child) override {
      child.setDelegate(parent.delegate());
      return true;
    }
    Data authenticationDataForComponents(const Array& /*components*/) override { return {1, 2}; }
    bool authenticateComponents(const Array& /*components*/, const Data& /*data*/) override {
      return true;
    }
  } careless;
  vend(careless);
  const auto connected = client_.connect();
  ASSERT_FALSE(connected);
  EXPECT_EQ(connected.error().exitStatus, kExitNotAuthenticated);
  vended_->invalidate();
}

TEST_F(DaemonClientTest, ADaemonThatStaysBusyIsReported) {
  vend(authenticator_);
  daemonTransport_.hang();
  Answer<void> connected;
  EXPECT_GE(timeOf([&] { connected = client_.connect(); }), DaemonClient::kTimeOut);
  ASSERT_FALSE(connected);
  EXPECT_EQ(connected.error().exitStatus, kExitFailed);
  EXPECT_THAT(connected.error().text, HasSubstr("is there but has not answered for 60 s; it "
                                                "may be waiting for a job to end"));
}

TEST_F(DaemonClientTest, AnotherServersTimeOutHasItsOwnText) {
  vend(authenticator_);
  daemonTransport_.hang();
  DaemonClient other(
      environment_, kUserInterfaceServer, kORBServiceManagerUserInterfaceProtocol,
      {.name = "the other one", .statusCommand = "list", .whyNoAnswer = "it may sleep"});
  const auto connected = other.connect();
  ASSERT_FALSE(connected);
  EXPECT_THAT(connected.error().text,
              HasSubstr("the other one is there but has not answered for 60 s; it may sleep"));
}

TEST_F(DaemonClientTest, ADaemonThatIsBusyForAMomentIsReached) {
  vend(authenticator_);
  daemonTransport_.hang();
  loop_.scheduleOutsideEvent(20s, [&] { daemonTransport_.goOn(); });
  EXPECT_TRUE(client_.connect());
}

TEST_F(DaemonClientTest, AnAnswerThatComesTooLateIsReported) {
  vend(authenticator_);
  ASSERT_TRUE(client_.connect());
  daemonTransport_.hang();
  Answer<Value> answer;
  EXPECT_EQ(timeOf([&] { answer = client_.ask(kServices, {}, 90s); }), 90s);
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().exitStatus, kExitFailed);
  EXPECT_THAT(answer.error().text, HasSubstr("has not answered for 90 s"));
}

TEST_F(DaemonClientTest, AnExceptionIsReportedWithItsReason) {
  vend(authenticator_);
  ASSERT_TRUE(client_.connect());
  const auto answer = client_.ask("pidForService:", {"agent"});
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error(),
            (Refusal{kExitFailed, "the service manager refused: ServerException: because"}));
}

TEST_F(DaemonClientTest, ADaemonThatEndsIsReported) {
  vend(authenticator_);
  ASSERT_TRUE(client_.connect());
  vended_->invalidate();
  loop_.runReady();
  const auto answer = client_.ask(kServices);
  ASSERT_FALSE(answer);
  EXPECT_EQ(answer.error().exitStatus, kExitNobodyThere);
}

}  // namespace
