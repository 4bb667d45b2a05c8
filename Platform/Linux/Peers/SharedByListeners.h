#pragma once

#include <memory>

#include "Platform/Peers/PeerAccounts.h"
#include "Platform/Peers/PeerTurns.h"

namespace platform {

// The part of a transport that all its listeners share.
struct SharedByListeners {
  std::shared_ptr<PeerAccounts> accounts;  // those of the process
  std::shared_ptr<PeerTurns> turns;
  bool leavesReserve = false;  // see DBusPeerTransport::leaveDescriptorReserve()
};

}  // namespace platform
