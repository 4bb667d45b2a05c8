// A service that logs what the announcer announces.

#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <string>

#include "Platform/BackgroundService.h"
#include "Platform/Linux/LinuxPlatform.h"
#include "Platform/Linux/NotificationBus.h"
#include "Platform/StringFormat.h"

namespace {

class Listener final : public platform::VGBackgroundServiceDelegate {
 public:
  Listener(platform::DistributedNotificationCenter& center, platform::SystemLog& log)
      : center_(center), log_(log) {}

  void backgroundServiceDidFinishLaunching(const platform::Value& /*notification*/) override {
    observation_ = center_.addObserver(
        "com.vantor.sample.announcer.didstart", std::nullopt,
        [this](const platform::DistributedNotification& notification) {
          log_.asl_log(nullptr, platform::ASL_LEVEL_NOTICE,
                       platform::stringWithFormat("The announcer has started as process %@",
                                                  notification.userInfo["PID"]));
        });
  }
  void backgroundServiceWillTerminate(const platform::Value& /*notification*/) override {}

 private:
  platform::DistributedNotificationCenter& center_;
  platform::SystemLog& log_;
  std::unique_ptr<platform::DistributedNotificationCenter::Observation> observation_;
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
  classes.add("Listener", [&] { return std::make_unique<Listener>(*center, linux.systemLog); });
  platform::BackgroundServiceHost host{*linux.runLoop, linux.terminationSignals, linux.readiness,
                                       classes};
  return platform::VGBackgroundServiceMain("Listener", argc, argv, host);
}
