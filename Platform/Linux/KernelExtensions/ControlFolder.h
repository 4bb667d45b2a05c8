#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

#include "Platform/Values/Error.h"

namespace platform {

// The folder of the controls' sockets, run/vantor/control below the platform root. Only its owner
// can enter: extensions and their clients all run as root, or as the user who owns the platform
// root.
std::string controlFolder(std::string_view root);

// Makes the folder and missing folders above it. Fails with kDenied if it belongs to somebody else
// or others can enter it.
Result<void> makeControlFolder(const std::string& root);

// Checks by the kernel's credentials that the peer of this connected socket is root or this
// program's own user.
Result<void> checkControlPeer(int socket);
// The same for a user id.
Result<void> checkControlUser(uid_t user, uid_t ours);

}  // namespace platform
