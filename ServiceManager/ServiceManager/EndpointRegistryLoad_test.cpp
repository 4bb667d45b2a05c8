// The registry on the real transport, with as many clients at once as a machine may have.

#include <atomic>
#include <chrono>
#include <filesystem>
#include <latch>
#include <memory>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include <gtest/gtest.h>

#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"
#include "Platform/Linux/SystemCalls/DescriptorLimit.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "Platform/Testing/Logging/FakeLogSink.h"
#include "Platform/Testing/Machine/TemporaryFolder.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"
#include "Platform/Testing/SystemFacts/FakeSystemInformation.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerXPCHandler.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

using namespace platform;

constexpr int kClients = 1000;

std::size_t openDescriptors() {
  const std::filesystem::directory_iterator descriptors("/proc/self/fd");
  return static_cast<std::size_t>(std::distance(begin(descriptors), end(descriptors)));
}

class EndpointRegistryLoadTest : public testing::Test {
 protected:
  EndpointRegistryLoadTest() {
    EXPECT_TRUE(raiseDescriptorLimit());
    std::filesystem::create_directories(folder_.path("run/vantor/mach"));
    addServiceManagerProtocols(protocols_);
    handler_ = std::make_shared<ORBServiceManagerXPCHandler>(loop_, system_, *center_, protocols_);
  }

  std::unique_ptr<LinuxXPC> makeXPC() {
    auto xpc = LinuxXPC::make(log_, ListenerPlaces(defaultPlatformConfiguration(folder_.path())),
                              std::nullopt);
    EXPECT_TRUE(xpc);
    return std::move(*xpc);
  }
  std::shared_ptr<NSXPCConnection> connect(LinuxXPC& xpc) {
    auto connection = xpc.xpc().makeConnection(kEndpointRegistryService);
    connection->setRemoteObjectInterface(protocols_.find(kORBServiceManagerXPCInterfaceProtocol));
    connection->resume();
    return connection;
  }

  TemporaryFolder folder_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  VirtualRunLoop loop_;
  FakeNotificationBus bus_{loop_};
  std::unique_ptr<DistributedNotificationCenter> center_ = bus_.makeCenter(log_);
  FakeSystemInformation system_;
  ProtocolTable protocols_;
  std::shared_ptr<ORBServiceManagerXPCHandler> handler_;
};

TEST_F(EndpointRegistryLoadTest, AThousandClientsAreServedWhileOthersDie) {
  // Each connection has two ends, and descriptors are passed over them meanwhile.
  if (softDescriptorLimit() < 4 * kClients) GTEST_SKIP() << "too few descriptors";
  const std::size_t before = openDescriptors();
  {
    const auto server = makeXPC();
    const auto listener = server->xpc().makeListener(kEndpointRegistryService);
    listener->setDelegate(handler_);
    listener->resume();
    const auto clients = makeXPC();
    const auto dying = makeXPC();
    const auto own = clients->xpc().makeAnonymousListener();
    const Value endpoint(std::shared_ptr<const RemoteObject>(own->endpoint()));
    const Value passkey(systemProfileData(system_));

    std::vector<std::shared_ptr<NSXPCConnection>> connections;
    std::vector<std::shared_ptr<NSXPCConnection>> doomed;
    std::latch done(kClients);
    std::atomic<int> right = 0;
    const auto failed = [&](const NSError&) { done.count_down(); };
    for (int i = 0; i < kClients; ++i) {
      const std::string name = "name " + std::to_string(i % 100);
      // For every fourth, there is a client that asks and dies.
      if (i % 4 == 0) {
        doomed.push_back(connect(*dying));
        doomed.back()->sendMessage("xpcListenerEndpointForPasskey:withName:withReply:",
                                   {passkey, Value(name)}, nullptr, nullptr);
      }
      NSXPCConnection* const connection = connections.emplace_back(connect(*clients)).get();
      connection->sendMessage(
          "registerXPCListenerEndpoint:forPasskey:withName:withReply:",
          {endpoint, passkey, Value(name)},
          [&, name, connection](const Array& reply) {
            if (reply != Array{Value(true), Value()}) return done.count_down();
            connection->sendMessage(
                "xpcListenerEndpointForPasskey:withName:withReply:", {passkey, Value(name)},
                [&](const Array& found) {
                  if (found.size() == 1 && endpointIn(found[0])) ++right;
                  done.count_down();
                },
                failed);
          },
          failed);
      if (i == kClients / 2) doomed.clear();  // In mid-request.
    }
    done.wait();
    EXPECT_EQ(right, kClients);
    doomed.clear();
    connections.clear();
  }
  handler_.reset();  // With the endpoints that it holds.
  EXPECT_EQ(openDescriptors(), before);
}

// There are as many queues as threads. Whatever they do at once, the limit of names holds.
TEST_F(EndpointRegistryLoadTest, ThreadsMayRegisterAndLookUpAtOnce) {
  struct AnyEndpoint final : NSXPCListenerEndpoint {
    bool hasListener() const override { return true; }
  };
  constexpr std::size_t kThreads = 4;
  constexpr std::size_t kNames = ORBServiceManagerXPCHandler::kMaxNames;
  constexpr std::size_t kNamesEach = kNames / kThreads + 50;
  const Value passkey(systemProfileData(system_));
  std::atomic<std::size_t> registered = 0;
  std::atomic<std::size_t> refused = 0;
  std::atomic<std::size_t> wrong = 0;
  std::latch allAreThere(kThreads);
  const auto work = [&](std::size_t thread) {
    allAreThere.arrive_and_wait();
    for (std::size_t i = 0; i < kNamesEach; ++i) {
      const std::string name = std::to_string(thread) + ' ' + std::to_string(i);
      const auto endpoint = std::make_shared<AnyEndpoint>();
      bool isRegistered = false;
      handler_->registerXPCListenerEndpoint(
          endpoint, passkey, name, [&](bool success, const std::optional<std::string>& message) {
            isRegistered = success;
            if (message && *message != "Too many names are registered.") ++wrong;
          });
      ++(isRegistered ? registered : refused);
      if (!isRegistered) continue;
      handler_->xpcListenerEndpoint(passkey, name, [&](const auto& found) {
        if (found != endpoint) ++wrong;
      });
    }
  };
  {
    std::vector<std::jthread> threads;
    for (std::size_t i = 0; i < kThreads; ++i) threads.emplace_back(work, i);
  }
  EXPECT_EQ(registered, kNames);
  EXPECT_EQ(refused, kThreads * kNamesEach - kNames);
  EXPECT_EQ(wrong, 0u);
}

}  // namespace
