#pragma once

#include <functional>
#include <memory>
#include <string>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Values/Error.h"

namespace platform {

// An endpoint as a descriptor of a listening socket's inode: opened without any access (O_PATH), so
// that its holder can connect to it and hand it on, and neither listen nor end anything. The socket
// has no name any more; it is connected to through the holder's own /proc/self/fd.
class SocketEndpoint final : public NSXPCListenerEndpoint {
 public:
  // What a peer has sent. kInvalid where it is anything but such a descriptor: a connected socket,
  // for instance, would name whoever connected it and not its holder, and one that has a name may
  // be closed to the peer.
  static Result<std::shared_ptr<const SocketEndpoint>> of(UniqueFd descriptor);

  // The endpoint of a new socket, which every user who has it may connect to. `bind` binds the
  // socket to the path given and listens; libdbus will want to remove that path at its end, so it
  // means nothing else for as long as `birthplace` lives.
  struct New;
  using Bind = std::function<Result<void>(const std::string& path)>;
  static Result<New> make(const Bind& bind);

  int descriptor() const { return descriptor_.get(); }
  // Good as long as this.
  std::string path() const;

 private:
  explicit SocketEndpoint(UniqueFd descriptor) : descriptor_(std::move(descriptor)) {}

  const UniqueFd descriptor_;
};

struct SocketEndpoint::New {
  std::shared_ptr<const SocketEndpoint> endpoint;  // shared with those it is handed to
  UniqueFd birthplace;
};

}  // namespace platform
