#pragma once

#include <string>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// The address of a socket's path, which may be longer than an address can hold: then its folder is
// kept open and the address goes through it. Valid as long as this.
class LogSinkAddress {
 public:
  // kNotFound when the folder of a long path is missing, kInvalid when even the name alone is too
  // long.
  static Result<LogSinkAddress> make(const std::string& path);

  const sockaddr_un& address() const { return address_; }

 private:
  LogSinkAddress() = default;

  UniqueFd folder_;
  sockaddr_un address_{};
};

// Sends datagrams to whoever is bound to a path at that moment. Never waits, raises no signal. Any
// thread may use it.
class LogSinkSocket {
 public:
  // Fails only when the system has no descriptor left.
  static Result<LogSinkSocket> open(std::string path);

  // Sends `bytes` whole or not at all. Fails with kExhausted when the receiver has no room or the
  // datagram is too large (osError EMSGSIZE), with kNotFound when nobody is there.
  Result<void> send(std::string_view bytes) const;

  // Sends an empty datagram with a descriptor.
  Result<void> sendDescriptor(int descriptor) const;

 private:
  LogSinkSocket(std::string path, UniqueFd socket);
  Result<void> sendMessage(msghdr& message) const;

  std::string path_;
  UniqueFd socket_;
};

}  // namespace platform
