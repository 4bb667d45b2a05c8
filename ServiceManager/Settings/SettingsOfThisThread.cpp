#include "ServiceManager/Settings/SettingsOfThisThread.h"

#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/NotificationCenter.h"

using namespace platform;

namespace {

// A centre that never notifies anybody.
class NullNotificationCenter final : public DistributedNotificationCenter {
 public:
  std::unique_ptr<Observation> addObserver(std::optional<std::string> /*name*/,
                                           std::optional<std::string> /*object*/,
                                           Handler /*handler*/,
                                           NSNotificationSuspensionBehavior /*behavior*/) override {
    return nullptr;
  }
  std::unique_ptr<Observation> observeReturn(std::function<void()> /*handler*/) override {
    return nullptr;
  }
  void postNotificationName(std::string_view /*name*/, std::optional<std::string> /*object*/,
                            Value /*userInfo*/, NSNotificationPosting /*posting*/) override {}
};

}  // namespace

void withSettingsOfThisThread(const SettingsThread& thread,
                              const std::function<void(const SettingsClientFactories&)>& ask) {
  NotificationCenter center;
  NamedConnections connections(thread.runLoop, thread.transport, center, thread.log,
                               thread.placeOfName);
  NullNotificationCenter nullCenter;
  SettingsClientFactories factories;
  addSettingsClientFactories(factories, {thread.runLoop, connections, nullCenter, center,
                                         thread.protocols, thread.system});
  ask(factories);
}
