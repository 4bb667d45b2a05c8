#include "ServiceManager/ServiceManager/VendedServers.h"

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Libraries/Static/ORBLogger2/ORBLogger2/Logger2_fixture.h"
#include "Platform/Testing/CodeSigning/FakeCodeSignatures.h"
#include "Platform/Testing/Files/FakeExtendedAttributes.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "Platform/Testing/XPC/FakeXPC.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

using namespace platform;
using testing::ElementsAre;
using testing::IsEmpty;

std::string placeOfVendedName(std::string_view name) { return "/names/" + std::string(name); }

// The object behind a server: notes what it is sent.
class NotedMessages final : public MessageReceiver {
 public:
  MessageResult receiveMessage(std::string_view selector, const Array&) override {
    selectors.emplace_back(selector);
    return Value("answer");
  }
  std::vector<std::string> selectors;
};

struct NoLastUser final : ExecInfoHandlerDelegate {
  Value getLastLoggedInUserHomeDirectory() override { return {}; }
};

class VendedServersTest : public testing::Test {
 protected:
  static constexpr char kInstaller[] = "com.vantor.servicemanager.installer.server";
  static constexpr char kUserInterface[] = "com.vantor.servicemanager.userinterface.server";
  static constexpr char kAuth[] = "com.vantor.common.servicemanager.auth";

  VendedServersTest() { addServiceManagerProtocols(protocols_); }

  // A message of a client in another program, and its answer.
  Value send(const char* server, const char* protocol, const char* selector, Array arguments = {}) {
    VantorDistantObject client(
        {loop_, client_.connections, *center_, client_.center, protocols_, system_}, server,
        protocol, std::nullopt);
    const MessageResult answer = client.sendMessage(selector, std::move(arguments));
    exception_ = client.recentException() ? client.recentException()->name : "";
    return answer.value_or(Value());
  }

  Logger2Lines lines_;
  VirtualRunLoop loop_;
  FakeSystemInformation system_;
  ProtocolTable protocols_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  FakeNotificationBus bus_{loop_};
  FakePeerNetwork network_{loop_};
  FakePeerTransport transport_{network_, {100, 0, 0}};
  FakePeerTransport clientsTransport_{network_, {200, 0, 0}};
  ConnectedProgram daemon_{loop_, transport_, &placeOfVendedName};
  ConnectedProgram client_{loop_, clientsTransport_, &placeOfVendedName};
  std::unique_ptr<DistributedNotificationCenter> center_ = bus_.makeCenter(log_);
  FakeXPC xpc_{network_, {100, 0, 0}, log_};
  FakeCodeSignatures signatures_;
  FakeExtendedAttributes attributes_;
  NotedMessages installer_;
  NotedMessages userInterface_;
  KLXConnectionAuthenticator delegate_{system_};
  const Value secret_ = Data{1, 2, 3, 4, 5, 6, 7, 8};
  std::shared_ptr<ExecInfoHandlerDelegate> lastUser_ = std::make_shared<NoLastUser>();
  std::string exception_;  // of the last message, if it raised
  std::optional<VendedServers> servers_{
      std::in_place, VendedServers::Environment{.runLoop = loop_,
                                                .connections = daemon_.connections,
                                                .distributedCenter = *center_,
                                                .protocols = protocols_,
                                                .system = system_,
                                                .xpc = xpc_.xpc,
                                                .codeSignatures = signatures_,
                                                .attributes = attributes_,
                                                .lastUser = lastUser_,
                                                .installer = installer_,
                                                .userInterface = userInterface_,
                                                .delegate = delegate_,
                                                .secret = secret_}};
};

TEST_F(VendedServersTest, NothingIsVendedAtFirst) {
  EXPECT_FALSE(servers_->connectionAuthenticator());
  EXPECT_FALSE(servers_->installer().connection);
  EXPECT_FALSE(servers_->xpcListener());
  EXPECT_TRUE(send(kAuth, kServiceManagerAuthProtocol, "retrieveKey").isNil());
}

TEST_F(VendedServersTest, EachNameLeadsToItsObject) {
  servers_->vendServers();
  EXPECT_EQ(send(kInstaller, kORBServiceManagerInstallerProtocol, "evaluateServices"),
            Value("answer"));
  EXPECT_THAT(installer_.selectors, ElementsAre("evaluateServices"));
  EXPECT_EQ(send(kUserInterface, kORBServiceManagerUserInterfaceProtocol, "services"),
            Value("answer"));
  EXPECT_THAT(userInterface_.selectors, ElementsAre("services"));
  EXPECT_EQ(send(kAuth, kServiceManagerAuthProtocol, "retrieveKey"), secret_);
  EXPECT_EQ(exception_, "");
}

TEST_F(VendedServersTest, AMessageOfAnotherProtocolReachesNoObject) {
  servers_->vendServers();
  send(kUserInterface, kORBServiceManagerInstallerProtocol, "evaluateServices");
  EXPECT_EQ(exception_, kNSInvalidArgumentException);
  send(kInstaller, kServiceManagerAuthProtocol, "retrieveKey");
  EXPECT_EQ(exception_, kNSInvalidArgumentException);
  EXPECT_THAT(installer_.selectors, IsEmpty());
  EXPECT_THAT(userInterface_.selectors, IsEmpty());
}

TEST_F(VendedServersTest, TheAuthServerHasADelegateOfItsOwn) {
  servers_->vendServers();
  EXPECT_EQ(servers_->installer().connection->delegate(), &delegate_);
  EXPECT_EQ(servers_->userInterface().connection->delegate(), &delegate_);
  EXPECT_EQ(servers_->deamon().connection->delegate(), servers_->connectionAuthenticator());
}

TEST_F(VendedServersTest, ANameInUseAffectsNoOtherServer) {
  NotedMessages stranger;
  const auto taken = client_.connections.makeConnection();
  taken->setRootObject(std::make_shared<NSProtocolChecker>(
      &stranger, protocols_.find(kORBServiceManagerInstallerProtocol)));
  ASSERT_TRUE(taken->registerName(kInstaller));
  servers_->vendServers();
  EXPECT_EQ(send(kAuth, kServiceManagerAuthProtocol, "retrieveKey"), secret_);
  EXPECT_EQ(send(kUserInterface, kORBServiceManagerUserInterfaceProtocol, "services"),
            Value("answer"));
}

TEST_F(VendedServersTest, TheNamesEndWithIt) {
  servers_->vendServers();
  servers_->vendXPCListeners();
  // Others may share them.
  const auto installer = servers_->installer().connection;
  const auto listener = servers_->xpcListener();
  const auto handler = servers_->execHandler();
  servers_.reset();
  EXPECT_FALSE(installer->isValid());
  EXPECT_TRUE(send(kAuth, kServiceManagerAuthProtocol, "retrieveKey").isNil());
  EXPECT_THAT(installer_.selectors, IsEmpty());
}

TEST_F(VendedServersTest, ARequestThatOutlastsItKeepsNoDelegate) {
  servers_->vendXPCListeners();
  const auto handlerOfRequest = servers_->execHandler();
  const std::weak_ptr<ExecInfoHandlerDelegate> lastUser = std::exchange(lastUser_, nullptr);
  servers_.reset();
  EXPECT_TRUE(lastUser.expired());
}

TEST_F(VendedServersTest, AnOldSystemHasNoXPCListeners) {
  system_.setRelease("11.4.2", {10, 7, 5});
  servers_->vendXPCListeners();
  EXPECT_FALSE(servers_->xpcListener());
  EXPECT_FALSE(servers_->execHandlerXPCListener());
  EXPECT_FALSE(servers_->xpcHandler());
  system_.setRelease("12.0.0", {10, 8, 0});
  servers_->vendXPCListeners();
  EXPECT_TRUE(servers_->xpcListener());
  EXPECT_TRUE(servers_->execHandlerXPCListener());
  EXPECT_TRUE(servers_->xpcHandler());
}

}  // namespace
