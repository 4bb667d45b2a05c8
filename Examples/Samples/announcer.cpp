// A service that announces its start to the machine, and then only runs.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <string>

#include <unistd.h>

#include "Platform/BackgroundService.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NotificationBus.h"

namespace {

class Announcer final : public platform::VGBackgroundServiceDelegate {
 public:
  explicit Announcer(platform::DistributedNotificationCenter& center) : center_(center) {}

  void backgroundServiceDidFinishLaunching(const platform::Value& /*notification*/) override {
    center_.postNotificationName("com.vantor.sample.announcer.didstart", std::nullopt,
                                 platform::Dictionary{{"PID", ::getpid()}},
                                 platform::NSNotificationPosting::kPostToAllSessions);
  }
  void backgroundServiceWillTerminate(const platform::Value& /*notification*/) override {}

 private:
  platform::DistributedNotificationCenter& center_;
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
  platform::BackgroundServiceClasses classes;
  classes.add("Announcer", [&] { return std::make_unique<Announcer>(*center); });
  platform::BackgroundServiceHost host{*linux.runLoop, linux.terminationSignals, linux.readiness,
                                       classes};
  return platform::VGBackgroundServiceMain("Announcer", argc, argv, host);
}
