#pragma once

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// A libdbus connection over a socket that is connected already. libdbus itself connects to
// addresses only, and waits there for as long as the other side pleases.
Result<UniqueDBusConnection> openOverSocket(UniqueFd socket);

}  // namespace platform
