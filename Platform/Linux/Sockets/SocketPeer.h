#pragma once

#include <cstdint>
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

// Whether the peer may pass descriptors over this socket, or over those that a listener accepts.
// Its sending fails without. Closing a descriptor can block for as long as its maker likes
// (SO_LINGER, a file system of its own), even if the message is not read. Does nothing before
// Linux 6.16.
void permitDescriptors(int socket, bool arePermitted);

struct ProcessStatus {
  std::uint32_t effectiveUser = 0;
  bool hasEnded = false;  // only its parent has not reaped it yet
};

// The status that the process has now. Fails with kNotFound if there is no process with that
// number, and otherwise if /proc can't be read, for instance without descriptors.
Result<ProcessStatus> statusOfProcess(ProcessId process);

}  // namespace platform
