#pragma once

#include <chrono>
#include <cstddef>
#include <memory>
#include <string>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {

// The bytes of a notification's name, object and user info as D-Bus lays them out, at most.
inline constexpr std::size_t kMaxNotificationBytes = std::size_t{64} * 1024;
// What may wait for the bus to take it.
inline constexpr std::size_t kMaxUnsentNotificationBytes = std::size_t{1} << 20;
// The longest rule by which the bus is asked for a name; it ends who sends a longer one.
inline constexpr std::size_t kMaxMatchRuleBytes = 1024;

// The D-Bus address of the bus that this platform's notifications go by: the configuration's, else
// the system bus.
std::string notificationBusAddress(const PlatformConfiguration& configuration);

// A centre on the message bus at `address`, as D-Bus writes a socket's path, for instance
// "unix:path=/run/dbus/system_bus_socket"; any other is logged and has no bus. It connects, and
// connects again, on the loop for as long as it lives; an observer is waited for as long as
// `confirmationTime` at most. The loop and the log outlive it. Not to be destroyed by a handler.
std::unique_ptr<DistributedNotificationCenter> makeBusNotificationCenter(
    AsioRunLoop& loop, std::string address, SystemLog& log,
    Duration confirmationTime = std::chrono::seconds(2));

}  // namespace platform
