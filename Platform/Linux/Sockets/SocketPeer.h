#pragma once

#include <string>

#include "Platform/Peers/PeerTransport.h"
#include "Platform/Values/Error.h"

namespace platform {

// Which process connected this socket, or made the listener that it is connected to. `what` is the
// context of an error.
Result<PeerCredentials> peerOfSocket(int socket, std::string what);

}  // namespace platform
