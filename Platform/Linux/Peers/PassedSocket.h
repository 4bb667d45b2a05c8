#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Values/Error.h"

struct DBusServer;  // Programs need not see libdbus.

namespace platform {

struct PassedServerClose {
  void operator()(DBusServer* server) const;
};
using PassedServer = std::unique_ptr<DBusServer, PassedServerClose>;

// The first descriptor that is passed to a program by the protocol of sd_listen_fds(3).
inline constexpr int kFirstPassedDescriptor = 3;

// The listening socket of a Mach service with which this process was started. The job host binds it
// before the start, so that early clients wait and are not refused.
struct PassedSocket {
  std::string machService;
  PassedServer server;

  // Takes the socket from LISTEN_FDS, LISTEN_FDNAMES and LISTEN_PID, and removes these, so that a
  // child process does not take it for its own. std::nullopt if they are not set or meant for
  // another process. Call it before other threads exist, because it changes the environment.
  //
  // Fails with kInvalid if there is more than one socket, it has no name, or it does not listen.
  static Result<std::optional<PassedSocket>> takeFromEnvironment();
};

}  // namespace platform
