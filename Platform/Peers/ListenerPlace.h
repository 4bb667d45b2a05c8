#pragma once

#include <string>
#include <utility>

#include "Platform/Peers/PeerAudience.h"

namespace platform {

// Where a named listener is, and who may be at its two ends.
struct ListenerPlace {
  // For root and our own user alone.
  ListenerPlace(std::string itsPath) : path(std::move(itsPath)) {}  // NOLINT(*-explicit-*)
  ListenerPlace(std::string itsPath, PeerAudience itsClients, PeerAudience itsServers)
      : path(std::move(itsPath)), clients(itsClients), servers(itsServers) {}

  std::string path;
  PeerAudience clients;  // the processes that may connect
  PeerAudience servers;  // the processes that a client takes for the listener's owner
};

}  // namespace platform
