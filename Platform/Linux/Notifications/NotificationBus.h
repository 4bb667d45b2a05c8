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

// The limit of a notification's name, object and user info together, in the bytes of D-Bus.
inline constexpr std::size_t kMaxNotificationBytes = std::size_t{64} * 1024;
// The limit of bytes that wait to be written to the bus.
inline constexpr std::size_t kMaxUnsentNotificationBytes = std::size_t{1} << 20;
// The longest match rule. A bus disconnects clients that send a longer one.
inline constexpr std::size_t kMaxMatchRuleBytes = 1024;

// The D-Bus address of the bus that carries this platform's notifications: the configured one, else
// the system bus.
std::string notificationBusAddress(const PlatformConfiguration& configuration);

// A centre on the message bus at `address`, a socket's path in the syntax of D-Bus, for instance
// "unix:path=/run/dbus/system_bus_socket". Any other address is logged and gives a centre without a
// bus. It connects and reconnects on the loop for as long as it lives. Adding an observer blocks
// for at most `confirmationTime`; without such a time, isAwaitingConfirmation() tells the rest. The
// loop and the log outlive it. A handler must not destroy it.
std::unique_ptr<DistributedNotificationCenter> makeBusNotificationCenter(
    AsioRunLoop& loop, std::string address, SystemLog& log,
    Duration confirmationTime = std::chrono::seconds(2));

}  // namespace platform
