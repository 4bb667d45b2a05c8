#include "ServiceManager/Settings/SettingsOfThisThread.h"

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsClient.h"
#include "Platform/Notifications/NotificationCenter.h"
#include "ServiceManager/Settings/NullNotificationCenter.h"

using namespace platform;

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
