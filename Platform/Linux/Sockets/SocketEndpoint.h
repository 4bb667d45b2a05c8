#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Values/Error.h"

namespace platform {

// An endpoint is a descriptor of a listening socket's inode, opened without any access (O_PATH).
// Its holder can connect to it and hand it on, but neither listen nor shut it down. The socket has
// no name any more; clients connect through their own /proc/self/fd.
class SocketEndpoint final : public NSXPCListenerEndpoint {
 public:
  // The endpoint that a peer has sent. Fails with kInvalid if `descriptor` is anything else: a
  // connected socket, for instance, would stand for its peer and not for its holder, and a socket
  // with a name may exclude the peer.
  static Result<std::shared_ptr<const SocketEndpoint>> of(UniqueFd descriptor);

  // The endpoint of a new socket. A user who holds it may connect if the permission says so. `bind`
  // binds the socket to the given path and listens. libdbus removes that path when its server ends,
  // so `bindFolder` keeps the path from meaning another file until then.
  //
  // The socket has a name for a moment only, in a folder of its own in `birthsFolder`, which nobody
  // else may enter. So only holders of the endpoint can ever connect.
  struct New;
  using Bind = std::function<Result<void>(const std::string& path)>;
  static Result<New> make(const std::string& birthsFolder, const SocketPermission& permission,
                          const Bind& bind);

  // Removes the folders that killed processes have left in `birthsFolder`, at most 1,024.
  static void removeLeftovers(const std::string& birthsFolder);

  bool hasListener() const override;

  int descriptor() const { return descriptor_.get(); }
  // Valid for as long as this object.
  std::string path() const;

 private:
  explicit SocketEndpoint(UniqueFd descriptor) : descriptor_(std::move(descriptor)) {}

  const UniqueFd descriptor_;
};

struct SocketEndpoint::New {
  std::shared_ptr<const SocketEndpoint> endpoint;  // shared with its receivers
  UniqueFd bindFolder;
};

}  // namespace platform
