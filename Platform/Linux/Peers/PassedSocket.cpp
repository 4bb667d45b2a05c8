#include "Platform/Linux/Peers/PassedSocket.h"

#include <cstdlib>
#include <string_view>

#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Linux/DBus/DBusHandles.h"

namespace platform {

namespace {

constexpr char kProcess[] = "LISTEN_PID";
constexpr char kCount[] = "LISTEN_FDS";
constexpr char kNames[] = "LISTEN_FDNAMES";

std::string_view variable(const char* name) {
  const char* value = std::getenv(name);
  return value != nullptr ? value : "";
}

int optionOf(int descriptor, int name) {
  int content = -1;
  socklen_t length = sizeof(content);
  return ::getsockopt(descriptor, SOL_SOCKET, name, &content, &length) == 0 ? content : -1;
}

std::unexpected<Error> invalidSockets(const std::string& what) {
  return std::unexpected(
      Error{ErrorCode::kInvalid, 0, "the sockets that this process was started with: " + what});
}

Result<std::optional<PassedSocket>> takeSockets(const std::string& name) {
  if (variable(kCount) != "1")
    return invalidSockets("expected one, not " + std::string(variable(kCount)));
  if (name.empty() || name.contains(':'))
    return invalidSockets("expected one name in LISTEN_FDNAMES");
  if (optionOf(kFirstPassedDescriptor, SO_DOMAIN) != AF_UNIX ||
      optionOf(kFirstPassedDescriptor, SO_TYPE) != SOCK_STREAM ||
      optionOf(kFirstPassedDescriptor, SO_ACCEPTCONN) != 1) {
    return invalidSockets("descriptor 3 is not a Unix stream socket that listens");
  }
  dbus_threads_init_default();
  DBusErrorText error;
  // The only address with which libdbus uses an existing socket.
  PassedServer server(dbus_server_listen("systemd:", error.get()));
  if (!server) return invalidSockets(error.text());
  return PassedSocket{name, std::move(server)};
}

}  // namespace

void PassedServerClose::operator()(DBusServer* server) const { DBusServerClose()(server); }

Result<std::optional<PassedSocket>> PassedSocket::takeFromEnvironment() {
  Result<std::optional<PassedSocket>> taken;
  const std::string self = std::to_string(::getpid());
  if (!variable(kCount).empty() && variable(kProcess) == self) {
    taken = takeSockets(std::string(variable(kNames)));
  }
  for (const char* name : {kProcess, kCount, kNames}) ::unsetenv(name);
  return taken;
}

}  // namespace platform
