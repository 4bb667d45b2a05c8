#pragma once

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// A libdbus connection over a connected socket. libdbus itself accepts only addresses, and its
// connecting blocks for as long as the other side likes.
Result<UniqueDBusConnection> openOverSocket(UniqueFd socket);

}  // namespace platform
