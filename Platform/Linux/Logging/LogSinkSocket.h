#pragma once

#include <string>
#include <string_view>

#include <sys/socket.h>
#include <sys/un.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Values/Error.h"

namespace platform {

// The address of a socket's path, which may be longer than an address: then its folder is kept open
// and the address refers to it. Valid as long as this object.
class LogSinkAddress {
 public:
  // Fails with kNotFound if the folder of a long path is missing, and with kInvalid if the name
  // alone is too long.
  static Result<LogSinkAddress> make(const std::string& path);

  const sockaddr_un& address() const { return address_; }

 private:
  LogSinkAddress() = default;

  UniqueFd folder_;
  sockaddr_un address_{};
};

// Sends datagrams to the process that is bound to a path at that moment. Never blocks and raises no
// signal. Any thread may use it.
class LogSinkSocket {
 public:
  // Fails only if the system has no descriptor left.
  static Result<LogSinkSocket> open(std::string path);

  // Sends `bytes` as one datagram or fails. Fails with kExhausted if the receiver has no room or
  // the datagram is too large (osError EMSGSIZE), and with kNotFound if no process is bound to the
  // path.
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
