#pragma once

#include <chrono>
#include <memory>
#include <string>

#include "Platform/DistributedNotificationCenter.h"
#include "Platform/Linux/AsioRunLoop.h"
#include "Platform/PlatformConfiguration.h"
#include "Platform/SystemLog.h"

namespace platform {

// The D-Bus address of the bus that this platform's notifications go by: the configuration's, else
// the system bus.
std::string notificationBusAddress(const PlatformConfiguration& configuration);

// A centre on the message bus at `address` (as D-Bus writes it, for instance
// "unix:path=/run/dbus/system_bus_socket"). It connects, and connects again, on the loop for as
// long as it lives; an observer is waited for as long as `confirmationTime` at most. The loop and
// the log outlive it. Not to be destroyed by a handler.
std::unique_ptr<DistributedNotificationCenter> makeBusNotificationCenter(
    AsioRunLoop& loop, std::string address, SystemLog& log,
    Duration confirmationTime = std::chrono::seconds(2));

}  // namespace platform
