#pragma once

#include <string>
#include <string_view>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"

namespace platform {

// The path of the socket by which a connection's name is known below a platform root. A name that
// no file can have (too long, with a slash or a NUL, with a dot in front, or empty) is stored by
// its digest, and so is one that looks like a digest.
std::string pathOfConnection(std::string_view root, std::string_view name);

// The same of a Mach service.
std::string pathOfMachService(std::string_view root, std::string_view name);

// Makes the folder of these sockets, for the program that everything else of the root depends on.
// It is that program's user's; the configured group may register names too, and nobody can take
// away a name of another's. Fails with kNotFound without such a group, and with kDenied where the
// folder is somebody else's, is a symbolic link, or may not be made or given to the group. The
// folders above it are made where they are missing.
[[nodiscard]] Result<void> makeConnectionsFolder(const PlatformConfiguration& configuration);

}  // namespace platform
