#include "Platform/Linux/Notifications/NotificationBus.h"

#include <utility>

#include "Platform/Linux/Notifications/BusNotificationCenter.h"

namespace platform {

std::string notificationBusAddress(const PlatformConfiguration& configuration) {
  if (configuration.notificationBus && *configuration.notificationBus != "system")
    return *configuration.notificationBus;
  return "unix:path=/run/dbus/system_bus_socket";
}

std::unique_ptr<DistributedNotificationCenter> makeBusNotificationCenter(
    AsioRunLoop& loop, std::string address, SystemLog& log, Duration confirmationTime) {
  return std::make_unique<BusNotificationCenter>(loop, std::move(address), log, confirmationTime);
}

}  // namespace platform
