#include "Platform/Linux/DBus/DBusConnecting.h"

#include <cstddef>
#include <string>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

// A listening socket with a name that the kernel chose, and that name.
Result<std::pair<UniqueFd, std::string>> listenAnywhere() {
  UniqueFd listener(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!listener) return std::unexpected(systemError("socket", ErrorCode::kExhausted));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  socklen_t length = sizeof(address.sun_family);
  auto* generic = reinterpret_cast<sockaddr*>(&address);
  if (::bind(listener.get(), generic, length) != 0 || ::listen(listener.get(), SOMAXCONN) != 0) {
    return std::unexpected(systemError("a socket for libdbus to connect to"));
  }
  length = sizeof(address);
  if (::getsockname(listener.get(), generic, &length) != 0) {
    return std::unexpected(systemError("getsockname"));
  }
  // Skips the NUL of an abstract name.
  const std::size_t start = offsetof(sockaddr_un, sun_path) + 1;
  return std::pair(std::move(listener), std::string(address.sun_path + 1, length - start));
}

}  // namespace

// libdbus connects to a socket of ours, which never blocks. Before it has written anything, dup3()
// replaces that descriptor by the given socket.
Result<UniqueDBusConnection> openOverSocket(UniqueFd socket) {
  auto anywhere = listenAnywhere();
  if (!anywhere) return std::unexpected(std::move(anywhere.error()));
  const std::string address = fmt::format("unix:abstract={}", anywhere->second);
  DBusErrorText error;
  UniqueDBusConnection connection(dbus_connection_open_private(address.c_str(), error.get()));
  if (!connection) {
    return std::unexpected(Error{ErrorCode::kExhausted, 0, error.text()});
  }
  int descriptor = -1;
  if (!dbus_connection_get_socket(connection.get(), &descriptor)) {
    return std::unexpected(Error{ErrorCode::kSystem, 0, "a D-Bus connection without a socket"});
  }
  if (retryOnInterrupt([&] { return ::dup3(socket.get(), descriptor, O_CLOEXEC); }) < 0) {
    return std::unexpected(systemError("dup3"));
  }
  return connection;
}

}  // namespace platform
