#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <utility>

#include <sys/types.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

// The permission to connect to a socket.
struct SocketPermission {
  std::uint32_t mode = 0600;
  std::optional<std::uint32_t> group = {};  // this user's own group unless it is set
};

// Sets it on the socket `name` in a folder.
Result<void> permit(const UniqueFd& folder, const std::string& name,
                    const SocketPermission& permission);

// The name of a listening socket in a folder that several processes of one user share, and root's.
// The name of a live listener is never taken over. A name that a dead process left behind is
// replaced, under a lock that all our processes use for it.
class SocketName {
 public:
  // Makes the socket: binds it to the given path, and listens. The path is valid only as long as
  // the SocketName.
  using Bind = std::function<Result<void>(const std::string& path)>;

  // Binds the socket where nobody else can connect yet (SocketBirths.h), sets its permission, and
  // only then links it to its name, which may be longer than a socket's address. Fails like
  // PeerTransport::listen().
  static Result<SocketName> take(const std::string& path, const SocketPermission& permission,
                                 const Bind& bind);

  // For a socket that has lost its name. `bindFolder` is the folder in which it was bound.
  static SocketName nameless(UniqueFd bindFolder) {
    SocketName name{UniqueFd(), std::string()};
    name.bindFolder_ = std::move(bindFolder);
    return name;
  }

  SocketName(SocketName&& other) noexcept = default;
  SocketName& operator=(SocketName&& other) noexcept = default;

  // Removes the name if it is still ours. Call it while the socket still listens: afterwards
  // another process may replace the name, and the number of an inode can be used again. A second
  // call does nothing.
  void remove();

 private:
  SocketName(UniqueFd folder, std::string name)
      : folder_(std::move(folder)), name_(std::move(name)) {}

  Result<void> publish(const UniqueFd& births, const std::string& temporary);
  Result<void> replaceLeftover();

  UniqueFd folder_;
  std::string name_;
  // The folder in which the socket was bound. It stays open for as long as the path given to `Bind`
  // may be used.
  UniqueFd bindFolder_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// Connects to the socket at `path`, which may be longer than an address, and blocks for at most
// `wait`. Fails with the errno of connect(): EAGAIN if the backlog stayed full for that time.
Result<UniqueFd> connectToSocket(const std::string& path, Duration wait);

}  // namespace platform
