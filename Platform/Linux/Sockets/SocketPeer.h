#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Peers/PeerTransport.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/KernelIds.h"

namespace platform {

// Which process connected this socket, or made the listener that it is connected to. `what` is the
// context of an error.
Result<PeerCredentials> peerOfSocket(int socket, std::string what);

// Whether that process was in the group when it connected.
bool peerWasInGroup(int socket, const PeerCredentials& peer, std::uint32_t group);

// The effective user that the process has now; nothing if there is none with that number.
std::optional<std::uint32_t> effectiveUserOf(ProcessId process);

}  // namespace platform
