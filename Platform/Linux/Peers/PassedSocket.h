#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Values/Error.h"

struct DBusServer;  // So that programs need not see libdbus.

namespace platform {

struct PassedServerClose {
  void operator()(DBusServer* server) const;
};
using PassedServer = std::unique_ptr<DBusServer, PassedServerClose>;

// The first descriptor that is passed to a program by the protocol of sd_listen_fds(3).
inline constexpr int kFirstPassedDescriptor = 3;

// The listening socket of a Mach service that this process was started with: the job host binds it
// before, so that whoever connects earlier waits and is not refused.
struct PassedSocket {
  std::string machService;
  PassedServer server;

  // Takes it from LISTEN_FDS, LISTEN_FDNAMES and LISTEN_PID, which are removed: a child of ours is
  // not to take it for its own. Nothing where there are none, or they are another process's. To be
  // called before there are other threads, since it changes the environment.
  //
  // Fails with kInvalid where it is more than one socket, one without a name, or none that listens.
  static Result<std::optional<PassedSocket>> takeFromEnvironment();
};

}  // namespace platform
