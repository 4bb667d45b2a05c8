#pragma once

#include <string>
#include <string_view>

#include <sys/types.h>

#include "Platform/Values/Error.h"

namespace platform {

// The folder of the controls' sockets, run/vantor/control of the platform root. Only its owner gets
// in: extensions and their clients are all of root, or of the user whose platform root it is.
std::string controlFolder(std::string_view root);

// Makes the folder, and those above it, where it is missing. kDenied for one that belongs to
// somebody else or lets others in.
Result<void> makeControlFolder(const std::string& root);

// Whether such a name can be a socket's in the folder.
bool isControlName(std::string_view name);

// That the other side of this connected socket is root's or this program's own user's, as the
// kernel says: the listener's, or whose who connected.
Result<void> checkControlPeer(int socket);
// The same for a user's number.
Result<void> checkControlUser(uid_t user, uid_t ours);

}  // namespace platform
