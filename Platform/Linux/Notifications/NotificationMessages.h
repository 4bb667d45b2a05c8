#pragma once

#include <optional>
#include <string>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Values/Error.h"

namespace platform {

// Notifications as signals of the notification bus.

// The rule by which the bus sends us signals. If the name does not fit into a rule, the rule
// matches every name and the observers filter.
std::string matchRuleFor(const std::optional<std::string>& name);

Result<UniqueDBusMessage> encodeNotification(const DistributedNotification& notification);

// std::nullopt for a signal in another format: the bus decides who may post, but not the content.
std::optional<DistributedNotification> decodeNotification(DBusMessage& signal);

}  // namespace platform
