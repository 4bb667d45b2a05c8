#include "Platform/XPC.h"

#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "Platform/Testing/FakeLogSink.h"
#include "Platform/Testing/FakeXPC.h"
#include "Platform/XPC_contract.h"

namespace platform {
namespace {

class FakeHarness final : public XPCHarness {
 public:
  XPC& here() override { return here_->xpc; }
  XPC& there() override { return there_->xpc; }
  void endThere() override { there_->transport.die(); }
  void end() override {
    loop_.runReady();
    there_.reset();
    here_.reset();
    loop_.runReady();
  }
  PeerCredentials self() override { return {100, 501, 20}; }
  void await(const std::function<bool()>& done) override {
    loop_.runReady();
    EXPECT_TRUE(done());
  }
  void changed() override {}

 private:
  VirtualRunLoop loop_;
  FakeLogSink sink_;
  SystemLog log_{sink_, "test"};
  FakePeerNetwork network_{loop_};
  std::optional<FakeXPC> here_{std::in_place, network_, PeerCredentials{100, 501, 20}, log_};
  std::optional<FakeXPC> there_{std::in_place, network_, PeerCredentials{200, 0, 0}, log_};
};

std::unique_ptr<XPCHarness> makeHarness() { return std::make_unique<FakeHarness>(); }

INSTANTIATE_TEST_SUITE_P(Fake, XPCContract, testing::Values(&makeHarness));

// What the delegate would set would never be let go of.
TEST_P(XPCContract, WhoHasGoneBeforeItIsDecidedIsNotShownToTheDelegate) {
  listen();
  listener_->suspend();
  client_ = connect();
  journal_.await("invalid", 0);  // It has connected.
  client_->invalidate();
  journal_.await("invalid");
  listener_->resume();
  client_ = connect();
  call(*client_, "echo:withReply:", {Value(1)});
  EXPECT_EQ(delegate_->peers.size(), 1u);
}

TEST(XPCTest, AListenerHasSoManyConnectionsOfOneUserAndNoMore) {
  constexpr std::size_t kConnections = 3;
  VirtualRunLoop loop;
  FakeLogSink sink;
  SystemLog log(sink, "test");
  FakePeerNetwork network(loop);
  FakeXPC client(network, {100, 501, 20}, log);
  FakePeerTransport transport(network, {200, 0, 0});
  XPC xpc({.loop = loop,
           .transport = transport,
           .log = log,
           .performOnLoop = [](const std::function<void()>& action) { action(); },
           .makeQueues = [&loop] { return std::make_unique<VirtualSerialQueues>(loop); },
           .path = [](std::string_view name) { return "/mach/" + std::string(name); },
           .connectionsPerUser = kConnections});
  struct Welcoming final : NSXPCListenerDelegate {
    bool listener(NSXPCListener& /*listener*/,
                  const std::shared_ptr<NSXPCConnection>& connection) override {
      connection->resume();
      return true;
    }
  };
  const auto delegate = std::make_shared<Welcoming>();
  const auto listener = xpc.makeListener("service");
  listener->setDelegate(delegate);
  listener->resume();
  std::size_t ended = 0;
  std::vector<std::shared_ptr<NSXPCConnection>> connections;
  const auto connect = [&] {
    connections.push_back(client.xpc.makeConnection("service"));
    connections.back()->setInvalidationHandler([&] { ++ended; });
    connections.back()->setInterruptionHandler([&] { ++ended; });
    connections.back()->resume();
    loop.runReady();
  };
  for (std::size_t i = 0; i < kConnections; ++i) connect();
  EXPECT_EQ(ended, 0u);
  connect();
  EXPECT_EQ(ended, 1u);
  connections.clear();
  loop.runReady();
}

}  // namespace
}  // namespace platform
