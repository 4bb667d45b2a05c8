#pragma once

#include <string>
#include <string_view>

#include "Platform/Peers/PeerAudience.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/Values/Error.h"

namespace platform {

// The path, below a platform root, of the socket for a connection's name. A name that can't be a
// file name (too long, with a slash or a NUL, with a dot in front, or empty) or that looks like a
// digest is replaced by its digest.
std::string pathOfConnection(std::string_view root, std::string_view name);

// The same for a Mach service.
std::string pathOfMachService(std::string_view root, std::string_view name);

// The same for a connection of a user who is not the job host's (NameOwners).
std::string pathOfUsersConnection(std::string_view root, std::string_view user,
                                  std::string_view name);

// Makes the folders of these sockets, and missing folders above them. For the job host, which
// starts everything else of the root. Only its own user may register names, and in a folder of
// their own the configured owners of names. Fails with kNotFound if there is no such owner or no
// such group as the configured one, and with kDenied if a folder belongs to somebody else, is a
// symbolic link, or may not be made or given to its owner.
[[nodiscard]] Result<void> makeConnectionsFolder(const PlatformConfiguration& configuration);

// The folder in which the sockets of endpoints are bound, for a moment each.
std::string endpointFolder(std::string_view root);

// Makes that folder if it is missing, for this user alone.
[[nodiscard]] Result<void> makeEndpointFolder(const std::string& root);

// The same for the job host: `makers` may make endpoints in the folder, and nobody can see or
// remove those of others. Removes what killed processes have left there. Fails like
// makeConnectionsFolder().
[[nodiscard]] Result<void> shareEndpointFolder(const std::string& root, const PeerAudience& makers);

}  // namespace platform
