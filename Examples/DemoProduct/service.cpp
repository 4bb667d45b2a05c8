// A service of the demo product: logs its start, announces it by the notification that its second
// argument names, if any, and runs until it is asked to end. It greets the clients of its endpoint
// "com.vantor.demo.NAME.endpoint", NAME being its own.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "Examples/DemoProduct/GreetingEndpoint.h"
#include "Platform/BackgroundServices/BackgroundService.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NamedConnections/ListenerPlaces.h"
#include "Platform/Linux/Notifications/NotificationBus.h"
#include "Platform/Linux/XPC/LinuxXPC.h"
#include "ServiceManager/ServiceManager/Protocols.h"

namespace {

class DemoService final : public platform::VGBackgroundServiceDelegate {
 public:
  DemoService(platform::DistributedNotificationCenter& center, platform::SystemLog& log,
              std::optional<std::string> startNotification)
      : center_(center), log_(log), startNotification_(std::move(startNotification)) {}

  void backgroundServiceDidFinishLaunching(const platform::Value& /*notification*/) override {
    log_.asl_log(nullptr, platform::ASL_LEVEL_NOTICE, "at work");
    if (!startNotification_) return;
    center_.postNotificationName(*startNotification_, std::nullopt, {},
                                 platform::NSNotificationPosting::kPostToAllSessions);
  }
  void backgroundServiceWillTerminate(const platform::Value& /*notification*/) override {
    log_.asl_log(nullptr, platform::ASL_LEVEL_NOTICE, "asked to end");
  }

 private:
  platform::DistributedNotificationCenter& center_;
  platform::SystemLog& log_;
  std::optional<std::string> startNotification_;
};

}  // namespace

int main(int argc, char** argv) {
  auto made = platform::LinuxPlatform::make();
  if (!made) {
    std::fputs((platform::describe(made.error()) + "\n").c_str(), stderr);
    return EXIT_FAILURE;
  }
  platform::LinuxPlatform& linux = **made;
  const auto center = platform::makeBusNotificationCenter(
      *linux.runLoop, platform::notificationBusAddress(linux.configuration), linux.systemLog);
  const auto xpc = platform::LinuxXPC::make(
      linux.systemLog, platform::ListenerPlaces(linux.configuration), std::nullopt);
  if (!xpc) {
    std::fputs((platform::describe(xpc.error()) + "\n").c_str(), stderr);
    return EXIT_FAILURE;
  }
  platform::ProtocolTable protocols;
  addServiceManagerProtocols(protocols);
  const std::string& program = linux.mainBundle.executablePath();
  const GreetingEndpoint endpoint(
      (*xpc)->xpc(), *center, linux.systemInformation, protocols, linux.systemLog,
      "com.vantor.demo." + program.substr(program.rfind('/') + 1) + ".endpoint");
  platform::BackgroundServiceClasses classes;
  classes.add("DemoService", [&] {
    return std::make_unique<DemoService>(
        *center, linux.systemLog, argc > 1 ? std::optional<std::string>(argv[1]) : std::nullopt);
  });
  platform::BackgroundServiceHost host{*linux.runLoop, linux.terminationSignals, linux.readiness,
                                       classes};
  return platform::VGBackgroundServiceMain("DemoService", argc, argv, host);
}
