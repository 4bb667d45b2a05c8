#pragma once

#include "Platform/Error.h"
#include "Platform/Linux/DBusHandles.h"
#include "Platform/Linux/UniqueFd.h"

namespace platform {

// A libdbus connection over a socket that is connected already. libdbus itself connects to
// addresses only, and waits there for as long as the other side pleases.
Result<UniqueDBusConnection> openOverSocket(UniqueFd socket);

}  // namespace platform
