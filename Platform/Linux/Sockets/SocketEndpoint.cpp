#include "Platform/Linux/Sockets/SocketEndpoint.h"

#include <cerrno>
#include <cstring>

#include <fcntl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

// The folder in which the socket is made. The socket has a name for a moment only, in a folder that
// nobody else may enter, so that only holders of the endpoint can ever connect.
constexpr char kBindFolder[] = "/tmp/.endpoint-XXXXXX";
constexpr char kSocketName[] = "socket";

std::unexpected<Error> endpointFailure(const char* what) {
  const bool isExhausted = errno == EMFILE || errno == ENFILE || errno == ENOSPC;
  return std::unexpected(
      systemError(what, isExhausted ? ErrorCode::kExhausted : ErrorCode::kSystem));
}

// Binds at `path`, opens the socket's inode and permits everybody to connect.
Result<UniqueFd> bindAndOpen(const std::string& path, const SocketEndpoint::Bind& bind) {
  if (auto bound = bind(path); !bound) return std::unexpected(std::move(bound.error()));
  UniqueFd descriptor(::open(path.c_str(), O_PATH | O_NOFOLLOW | O_CLOEXEC));
  if (!descriptor) return endpointFailure("a new endpoint");
  if (::chmod(path.c_str(), 0666) != 0) return endpointFailure("a new endpoint's mode");
  return descriptor;
}

}  // namespace

Result<std::shared_ptr<const SocketEndpoint>> SocketEndpoint::of(UniqueFd descriptor) {
  struct stat status{};
  const int flags = ::fcntl(descriptor.get(), F_GETFL);
  if (flags < 0 || ::fstat(descriptor.get(), &status) != 0) return endpointFailure("an endpoint");
  // A socket with a name may belong to somebody who excludes the sender from connecting.
  if ((flags & O_PATH) == 0 || !S_ISSOCK(status.st_mode) || status.st_nlink != 0) {
    return std::unexpected(Error{ErrorCode::kInvalid, 0, "a descriptor that is no endpoint"});
  }
  return std::shared_ptr<const SocketEndpoint>(new SocketEndpoint(std::move(descriptor)));
}

Result<SocketEndpoint::New> SocketEndpoint::make(const Bind& bind) {
  std::string folder = kBindFolder;
  if (::mkdtemp(folder.data()) == nullptr) return endpointFailure("a folder for a new endpoint");
  UniqueFd bindFolder(::open(folder.c_str(), O_PATH | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  Result<UniqueFd> descriptor =
      bindFolder ? bindAndOpen(pathOfDescriptor(bindFolder) + "/" + kSocketName, bind)
                 : endpointFailure("a new endpoint's folder");
  ::unlinkat(bindFolder.get(), kSocketName, 0);
  ::rmdir(folder.c_str());
  if (!descriptor) return std::unexpected(std::move(descriptor.error()));
  auto endpoint = of(std::move(*descriptor));
  if (!endpoint) return std::unexpected(std::move(endpoint.error()));
  return New{std::move(*endpoint), std::move(bindFolder)};
}

// A datagram socket can't be connected to a listener. The kernel compares the types only after it
// has found the socket of the inode, so the error tells whether there is one.
bool SocketEndpoint::hasListener() const {
  const UniqueFd probe(::socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0));
  if (!probe) return true;
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string name = path();
  std::memcpy(address.sun_path, name.c_str(), name.size() + 1);
  return ::connect(probe.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address)) ==
             0 ||
         errno != ECONNREFUSED;
}

std::string SocketEndpoint::path() const { return pathOfDescriptor(descriptor_); }

}  // namespace platform
