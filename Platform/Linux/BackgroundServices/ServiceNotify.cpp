#include "Platform/Linux/BackgroundServices/ServiceNotify.h"

#include <cerrno>
#include <cstddef>
#include <cstdlib>
#include <cstring>
#include <optional>

#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

constexpr char kVariable[] = "NOTIFY_SOCKET";
constexpr std::chrono::seconds kAnnounceTimeout(1);

struct SocketAddress {
  sockaddr_un address;
  socklen_t size;
};

std::optional<SocketAddress> socketAddress(const std::string& text) {
  SocketAddress socket{};
  sockaddr_un& address = socket.address;
  const bool abstract = text.starts_with('@');
  // A path ends with a zero byte. An abstract name begins with one, which replaces the "@".
  const std::size_t room = sizeof address.sun_path - (abstract ? 0 : 1);
  if (text.size() < 2 || text.size() > room || (!abstract && !text.starts_with('/'))) {
    return std::nullopt;
  }
  address.sun_family = AF_UNIX;
  std::memcpy(address.sun_path, text.data(), text.size());
  if (abstract) address.sun_path[0] = '\0';
  socket.size =
      static_cast<socklen_t>(offsetof(sockaddr_un, sun_path) + text.size() + (abstract ? 0 : 1));
  return socket;
}

}  // namespace

ServiceNotify ServiceNotify::takeFromEnvironment() {
  const char* const value = std::getenv(kVariable);
  std::string address = value ? value : "";
  ::unsetenv(kVariable);
  return {std::move(address), kAnnounceTimeout};
}

Result<void> ServiceNotify::send(std::string_view message) const {
  if (address_.empty()) return {};
  const std::string context = std::string(kVariable) + " \"" + address_ + "\"";
  const auto target = socketAddress(address_);
  if (!target) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0,
                                 context + ": expected an absolute path, or @ and a name, of at "
                                           "most 107 bytes"});
  }
  const UniqueFd socket(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!socket) return std::unexpected(systemError(context));
  const auto seconds = std::chrono::duration_cast<std::chrono::seconds>(timeout_);
  const timeval timeout{.tv_sec = seconds.count(),
                        .tv_usec = std::chrono::microseconds(timeout_ - seconds).count()};
  if (::setsockopt(socket.get(), SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof timeout) != 0) {
    return std::unexpected(systemError(context));
  }
  const ssize_t sent = retryOnInterrupt([&] {
    return ::sendto(socket.get(), message.data(), message.size(), MSG_NOSIGNAL,
                    reinterpret_cast<const sockaddr*>(&target->address), target->size);
  });
  if (sent < 0) return std::unexpected(systemError(context));
  return {};
}

}  // namespace platform
