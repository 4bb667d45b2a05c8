#pragma once

#include <string>
#include <string_view>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"

namespace platform {

// The path, below a platform root, of the socket for a connection's name. A name that can't be a
// file name (too long, with a slash or a NUL, with a dot in front, or empty) or that looks like a
// digest is replaced by its digest.
std::string pathOfConnection(std::string_view root, std::string_view name);

// The same for a Mach service.
std::string pathOfMachService(std::string_view root, std::string_view name);

// Makes the folder of these sockets, and missing folders above it. For the job host, which starts
// everything else of the root. The folder belongs to the caller's user. The configured group may
// register names in it too, but nobody can remove the names of others. Fails with kNotFound if
// there is no such group, and with kDenied if the folder belongs to somebody else, is a symbolic
// link, or may not be made or given to the group.
[[nodiscard]] Result<void> makeConnectionsFolder(const PlatformConfiguration& configuration);

}  // namespace platform
