#include "ServiceManager/ServiceManager/VendedOperatorServer.h"

#include <deque>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/VantorDistantObject.h"
#include "Platform/Testing/NamedConnections/ConnectedProgram.h"
#include "Platform/Testing/Notifications/FakeNotificationBus.h"
#include "Platform/Testing/Peers/FakePeerTransport.h"
#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "ServiceManager/Supervision/SupervisedMachine_fixture.h"

namespace {

using namespace platform;

std::string placeOfOperatorsName(std::string_view name) { return "/names/" + std::string(name); }

// The operator's server on a thread whose work the test serves, beside a main thread that publishes
// pictures at once.
class VendedOperatorServerTest : public SupervisedMachine {
 protected:
  static constexpr char kServer[] = "com.vantor.servicemanager.operator.server";

  VendedOperatorServerTest() { addServiceManagerProtocols(protocols_); }

  void vend() {
    server_.emplace(VendedOperatorServer::Environment{
        .worker = {[this](RunLoop::Callback work) { work_.push_back(std::move(work)); }, loop_,
                   worker_.connections, jobs_, extensionsPlatform_, factories_},
        .pictures = pictures_,
        .main = {.publish =
                     [this](RunLoop::Callback published) {
                       pictures_->publish(std::make_shared<OperatorPicture>(OperatorPicture{
                           .taken = loop_.now(),
                           .catalogue = std::make_shared<ServiceCatalogue>(catalogue()),
                           .operatingMode = ORBOperatingModeInstaller}));
                       published();
                     },
                 .whenSettled = [](Array, RunLoop::Callback settled) { settled(); }},
        .mainThreadWork = std::make_shared<MainThreadWork>(loop_),
        .events = std::make_shared<OperatorEvents>(),
        .protocols = protocols_,
        .system = system_});
  }
  void serveThread() {
    for (RunLoop::Callback& next : std::exchange(work_, {})) next();
  }
  // The operator's question from another program; nil without a server.
  Value overview() { return overview(system_); }
  Value overview(const SystemInformation& system) {
    VantorDistantObject client(
        {loop_, tool_.connections, *center_, tool_.center, protocols_, system}, kServer,
        kORBServiceManagerOperatorProtocol, std::nullopt);
    const auto proxy = client.rootProxy();
    if (!proxy) return {};
    Value answer;
    // Both programs are on one loop, so the client must not block it.
    proxy->sendMessageAsync("overview", {}, MessageReply([&answer](const MessageResult& result) {
                              answer = result.value_or(Value());
                            }));
    loop_.runReady();
    return answer;
  }

  ProtocolTable protocols_;
  FakeNotificationBus bus_{loop_};
  FakePeerNetwork network_{loop_};
  FakePeerTransport workersTransport_{network_, {100, 0, 0}};
  FakePeerTransport toolsTransport_{network_, {200, 0, 0}};
  ConnectedProgram worker_{loop_, workersTransport_, &placeOfOperatorsName};
  ConnectedProgram tool_{loop_, toolsTransport_, &placeOfOperatorsName};
  std::unique_ptr<DistributedNotificationCenter> center_ = bus_.makeCenter(tool_.log);
  SettingsClientFactories factories_;
  std::deque<RunLoop::Callback> work_;
  std::shared_ptr<OperatorPictures> pictures_ = std::make_shared<OperatorPictures>();
  std::optional<VendedOperatorServer> server_;
};

TEST_F(VendedOperatorServerTest, ItIsVendedOnItsThread) {
  vend();
  EXPECT_TRUE(overview().isNil());
  serveThread();
  EXPECT_EQ(overview()[kFactOperatingMode], Value(ORBOperatingModeInstaller));
}

TEST_F(VendedOperatorServerTest, APeerOfAnotherBootIsRefused) {
  FakeSystemInformation otherBoot;
  otherBoot.setBootTime(FakeSystemInformation::kBootTime + 1);
  vend();
  serveThread();
  EXPECT_TRUE(overview(otherBoot).isNil());
}

TEST_F(VendedOperatorServerTest, ItEndsOnItsThread) {
  vend();
  serveThread();
  server_.reset();
  EXPECT_FALSE(overview().isNil());
  serveThread();
  EXPECT_TRUE(overview().isNil());
}

TEST_F(VendedOperatorServerTest, ItMayEndBeforeItsThreadHasBegun) {
  vend();
  server_.reset();
  serveThread();
  EXPECT_TRUE(overview().isNil());
}

}  // namespace
