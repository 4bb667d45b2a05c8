#pragma once

#include "Platform/Peers/PeerAccounts.h"
#include "Platform/Values/Value.h"

namespace platform {

// The cost of a message with these arguments for its user while it waits to be served. Each
// endpoint is one of our descriptors.
PeerCost costOfWaiting(const Array& arguments);

}  // namespace platform
