#pragma once

#include <cstdint>
#include <functional>
#include <string>
#include <utility>

#include <sys/types.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

// The name of a listening socket in a folder that several processes share. A name that a live
// process listens on is never taken over; what a dead one has left is replaced, under a lock that
// all of us hold while they do so.
class SocketName {
 public:
  // Makes the socket: binds it to the path given, and listens. The path is good only as long as the
  // SocketName.
  using Bind = std::function<Result<void>(const std::string& path)>;

  // Binds where nobody else can connect yet, sets the mode, and only then gives it its name, which
  // may be longer than a socket's address. Fails as PeerTransport::listen() says.
  static Result<SocketName> take(const std::string& path, std::uint32_t mode, const Bind& bind);

  // Of a socket that has no name any more, in a folder that `birthplace` keeps, gone from its
  // parent too.
  static SocketName nameless(UniqueFd birthplace) {
    return {UniqueFd(), std::string(), std::move(birthplace)};
  }

  SocketName(SocketName&& other) noexcept = default;
  SocketName& operator=(SocketName&& other) noexcept = default;

  // Takes the name away if it still is ours. To be called while the socket still listens: from then
  // on anybody may replace it, and a number of an inode can return. Nothing a second time.
  void remove();

 private:
  SocketName(UniqueFd folder, std::string name, UniqueFd birthplace)
      : folder_(std::move(folder)), name_(std::move(name)), birthplace_(std::move(birthplace)) {}

  Result<void> publish();
  Result<void> replaceLeftover();

  UniqueFd folder_;
  std::string name_;
  // A folder of its own, gone from its parent, but open for as long as the path given to `Bind` may
  // be used.
  UniqueFd birthplace_;
  dev_t device_ = 0;
  ino_t inode_ = 0;
};

// Connects to the socket at `path`, however long, without waiting for longer than `wait`. Fails
// with the errno of connect(): EAGAIN where the other side accepted nobody in that time.
Result<UniqueFd> connectToSocket(const std::string& path, Duration wait);

}  // namespace platform
