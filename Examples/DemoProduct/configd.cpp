// The demo product's configuration server, which every other service waits for: tells whether it is
// up, and announces its start and its end.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Logger/Logger.h"
#include "Platform/BackgroundService.h"
#include "Platform/Linux/ConnectionsFolder.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NotificationBus.h"
#include "Platform/NamedConnections.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

class ConfigurationServer final : public platform::VGBackgroundServiceDelegate,
                                  public platform::MessageReceiver {
 public:
  ConfigurationServer(platform::NamedConnections& connections,
                      platform::DistributedNotificationCenter& center,
                      const platform::ProtocolTable& protocols,
                      const platform::SystemInformation& system)
      : connection_(connections.makeConnection()),
        center_(center),
        statusProtocol_(protocols.find(kORBServiceManagerConfigurationServerStatusProtocol)),
        authenticator_(system) {}

  void backgroundServiceDidFinishLaunching(const platform::Value& /*notification*/) override {
    connection_->setDelegate(&authenticator_);
    connection_->setRootObject(
        std::make_shared<platform::NSProtocolChecker>(this, statusProtocol_));
    connection_->registerName("com.vantor.service.configd.status");
    post("com.vantor.notification.configd.didstart");
  }
  void backgroundServiceWillTerminate(const platform::Value& /*notification*/) override {
    post("com.vantor.notification.configd.willshutdown");
    connection_->invalidate();
  }

  // The protocol has no other message.
  platform::MessageResult receiveMessage(std::string_view /*isServerUp*/,
                                         const platform::Array& /*arguments*/) override {
    return true;
  }

 private:
  void post(std::string_view name) {
    center_.postNotificationName(name, std::nullopt, {},
                                 platform::NSNotificationPosting::kPostToAllSessions);
  }

  std::shared_ptr<platform::NSConnection> connection_;  // shared with its clients' connections
  platform::DistributedNotificationCenter& center_;
  const platform::Protocol* statusProtocol_;
  KLXConnectionAuthenticator authenticator_;
};

}  // namespace

int main(int argc, char** argv) {
  auto made = platform::LinuxPlatform::make();
  if (!made) {
    std::fputs((platform::describe(made.error()) + "\n").c_str(), stderr);
    return EXIT_FAILURE;
  }
  platform::LinuxPlatform& linux = **made;
  const LoggerBinding logger(linux.systemLog);
  platform::NotificationCenter localCenter;
  platform::NamedConnections connections(*linux.runLoop, linux.peerTransport, localCenter,
                                         linux.systemLog, [&](std::string_view name) {
                                           return platform::pathOfConnection(
                                               linux.configuration.root, name);
                                         });
  const auto center = platform::makeBusNotificationCenter(
      *linux.runLoop, platform::notificationBusAddress(linux.configuration), linux.systemLog);
  platform::ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  platform::BackgroundServiceClasses classes;
  classes.add("ConfigurationServer", [&] {
    return std::make_unique<ConfigurationServer>(connections, *center, protocols,
                                                 linux.systemInformation);
  });
  platform::BackgroundServiceHost host{*linux.runLoop, linux.terminationSignals, linux.readiness,
                                       classes};
  return platform::VGBackgroundServiceMain("ConfigurationServer", argc, argv, host);
}
