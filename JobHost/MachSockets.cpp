#include "JobHost/MachSockets.h"

#include <cstddef>
#include <cstdint>
#include <cstring>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "JobHost/BoundFile.h"
#include "JobHost/State/StateRecord.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::Descriptor;
using platform::Error;
using platform::ErrorCode;
using platform::Result;
using platform::systemError;
using platform::UniqueFd;

// The name that a service's socket is bound by before it is renamed to its own. It is short enough
// for an address however long the service's name is, and getsockname() still tells it afterwards.
std::string boundName(std::string_view service) {
  const auto* const bytes = reinterpret_cast<const std::uint8_t*>(service.data());
  return fmt::format(".bind-{:016x}", hashOn(kEmptyHash, bytes, service.size()));
}

bool isOption(int socket, int option, int expected) {
  int value = -1;
  socklen_t size = sizeof value;
  return ::getsockopt(socket, SOL_SOCKET, option, &value, &size) == 0 && value == expected;
}

// Whether the socket was bound by boundName(service).
bool wasBoundAs(int socket, const std::string& service) {
  sockaddr_un address{};
  socklen_t size = sizeof address;
  if (::getsockname(socket, reinterpret_cast<sockaddr*>(&address), &size) != 0 ||
      address.sun_family != AF_UNIX || size <= offsetof(sockaddr_un, sun_path)) {
    return false;
  }
  const std::string_view path(address.sun_path,
                              ::strnlen(address.sun_path, sizeof address.sun_path));
  return path.ends_with("/" + boundName(service));
}

// Whether a client that connects to this file reaches the socket.
bool isBoundTo(int socket, const struct stat& status, const std::string& service) {
  const auto file = boundFileOf(socket);
  if (file && file->inode != static_cast<std::uint32_t>(status.st_ino)) return false;
  if (file && file->device == status.st_dev) return true;
  // The kernel can't tell, or reports another device than stat() does, as on an overlay of several
  // file systems. Trust the name that the socket was bound by: the job's own process could fake it,
  // but harms only this service.
  return wasBoundAs(socket, service);
}

}  // namespace

Result<MachSockets> MachSockets::open(const std::string& folder, AudienceOf audience) {
  UniqueFd descriptor(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!descriptor) return std::unexpected(systemError("opening " + folder));
  return MachSockets(std::move(descriptor), std::move(audience));
}

Result<UniqueFd> MachSockets::bindListener(const std::string& service) const {
  const int folder = folder_.get();
  const std::string what = "binding the service " + platform::quotedInMessage(service);
  const std::string name = boundName(service);
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0));
  if (!socket) return std::unexpected(systemError(what));
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = fmt::format("/proc/self/fd/{}/{}", folder, name);
  std::memcpy(address.sun_path, path.data(), path.size());
  ::unlinkat(folder, name.c_str(), 0);
  if (::bind(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof address) != 0) {
    return std::unexpected(systemError(what));
  }
  if (!permit(name, service) || ::listen(socket.get(), SOMAXCONN) != 0 ||
      ::renameat(folder, name.c_str(), folder, service.c_str()) != 0) {
    Error error = systemError(what);
    ::unlinkat(folder, name.c_str(), 0);
    return std::unexpected(std::move(error));
  }
  return socket;
}

// The service itself asks the kernel for its callers, too.
bool MachSockets::permit(const std::string& file, const std::string& service) const {
  const platform::PeerAudience audience = audience_(service);
  if (audience.group && !audience.everybody &&
      ::fchownat(folder_.get(), file.c_str(), static_cast<uid_t>(-1), *audience.group,
                 AT_SYMLINK_NOFOLLOW) != 0) {
    return false;
  }
  return ::fchmodat(folder_.get(), file.c_str(), audience.socketMode(), 0) == 0;
}

Result<Descriptor> MachSockets::listen(const std::string& service, std::string_view label) {
  const auto found = listeners_.find(service);
  if (found != listeners_.end()) {
    if (found->second.label == label) return found->second.socket.get();
    return std::unexpected(
        Error{ErrorCode::kInvalid, 0,
              fmt::format("job {}: key \"MachServices\": the service {} is that of job {}",
                          platform::quotedInMessage(label), platform::quotedInMessage(service),
                          platform::quotedInMessage(found->second.label))});
  }
  auto socket = bindListener(service);
  if (!socket) return std::unexpected(std::move(socket.error()));
  const Descriptor descriptor = socket->get();
  listeners_.emplace(service, Listener{std::string(label), *std::move(socket)});
  return descriptor;
}

Descriptor MachSockets::find(const std::string& service, std::string_view label) const {
  const auto found = listeners_.find(service);
  const bool isOwn = found != listeners_.end() && found->second.label == label;
  return isOwn ? found->second.socket.get() : -1;
}

bool MachSockets::hasClient(const std::string& service, std::string_view label) const {
  pollfd entry{find(service, label), POLLIN, 0};
  return entry.fd >= 0 && ::poll(&entry, 1, 0) > 0;
}

bool MachSockets::takeOver(const std::string& service, std::string_view label, UniqueFd socket) {
  if (!socket || listeners_.contains(service)) return false;
  struct stat status{};
  if (!isOption(socket.get(), SO_ACCEPTCONN, 1) ||
      ::fstatat(folder_.get(), service.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0 ||
      !S_ISSOCK(status.st_mode) || !isBoundTo(socket.get(), status, service)) {
    return false;
  }
  // The configuration may have changed.
  if (!permit(service, service)) return false;
  listeners_.emplace(service, Listener{std::string(label), std::move(socket)});
  return true;
}

void MachSockets::close(const std::string& service, std::string_view label) {
  const auto found = listeners_.find(service);
  if (found == listeners_.end() || found->second.label != label) return;
  ::unlinkat(folder_.get(), service.c_str(), 0);
  listeners_.erase(found);
}

void MachSockets::removeName(const std::string& service) {
  if (!listeners_.contains(service)) ::unlinkat(folder_.get(), service.c_str(), 0);
}

}  // namespace jobhost
