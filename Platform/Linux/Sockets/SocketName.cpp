#include "Platform/Linux/Sockets/SocketName.h"

#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/Sockets/SocketBirths.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr auto kRetryPause = 5ms;

ErrorCode codeOfSocketError(int number) {
  switch (number) {
    case EROFS:
    case EADDRINUSE:
      return ErrorCode::kDenied;
    case ENAMETOOLONG:
    case ELOOP:
    case EISDIR:
    case EPROTOTYPE:
      return ErrorCode::kInvalid;
    default:
      return errorCodeOf(number);
  }
}

std::unexpected<Error> socketFailure(std::string what) {
  const int number = errno;
  return std::unexpected(Error{codeOfSocketError(number), number, std::move(what)});
}

// Connects through a descriptor of the socket itself, because an address holds only 107 bytes.
Result<UniqueFd> connectOnce(const UniqueFd& target) {
  UniqueFd socket(::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0));
  if (!socket) return socketFailure("socket");
  sockaddr_un address{};
  address.sun_family = AF_UNIX;
  const std::string path = pathOfDescriptor(target);
  std::memcpy(address.sun_path, path.c_str(), path.size() + 1);
  const int connected = retryOnInterrupt([&] {
    return ::connect(socket.get(), reinterpret_cast<const sockaddr*>(&address), sizeof(address));
  });
  if (connected != 0) return socketFailure("connect");
  return socket;
}

std::string randomName() {
  std::uint64_t number = 0;
  // Once the system is up, so few bytes are never cut short.
  std::ignore = ::getrandom(&number, sizeof(number), 0);
  return fmt::format("socket-{:016x}", number);
}

}  // namespace

Result<void> permit(const UniqueFd& folder, const std::string& name,
                    const SocketPermission& permission) {
  // The group comes first, so that the mode never opens the socket to another one.
  if (permission.group && ::fchownat(folder.get(), name.c_str(), static_cast<uid_t>(-1),
                                     *permission.group, AT_SYMLINK_NOFOLLOW) != 0) {
    return socketFailure("the socket's group");
  }
  if (::fchmodat(folder.get(), name.c_str(), permission.mode, 0) != 0) {
    return socketFailure("the socket's mode");
  }
  return {};
}

Result<SocketName> SocketName::take(const std::string& path, const SocketPermission& permission,
                                    const Bind& bind) {
  const auto inContext = [&path](Error error) {
    error.context = "listening on " + path + ": " + error.context;
    return std::unexpected(std::move(error));
  };
  const std::size_t slash = path.rfind('/');
  const std::string name = slash == std::string::npos ? path : path.substr(slash + 1);
  if (name.empty() || name.front() == '.' || path.contains('\0')) {
    return inContext({ErrorCode::kInvalid, 0, "not a name for a socket"});
  }
  const std::string parent = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  UniqueFd folder(::open(parent.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC));
  if (!folder) return inContext(socketFailure("the folder").error());

  auto births = SocketBirths::enter(folder);
  if (!births) return inContext(std::move(births.error()));
  const std::string temporary = randomName();
  SocketName taken(std::move(folder), name);
  Result<void> done = bind(pathOfDescriptor(births->folder()) + "/" + temporary);
  if (done) done = permit(births->folder(), temporary, permission);
  if (done) done = taken.publish(births->folder(), temporary);
  ::unlinkat(births->folder().get(), temporary.c_str(), 0);
  taken.bindFolder_ = births->leave();
  if (!done) return inContext(std::move(done.error()));
  return taken;
}

Result<void> SocketName::publish(const UniqueFd& births, const std::string& temporary) {
  struct stat status{};
  if (::fstatat(births.get(), temporary.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return socketFailure("the new socket");
  }
  const auto link = [&] {
    return ::linkat(births.get(), temporary.c_str(), folder_.get(), name_.c_str(), 0) == 0;
  };
  if (!link()) {
    if (errno != EEXIST) return socketFailure("naming the socket");
    if (auto replaced = replaceLeftover(); !replaced) return replaced;
    if (!link()) {
      if (errno == EEXIST) errno = EADDRINUSE;  // Another process was faster.
      return socketFailure("naming the socket");
    }
  }
  device_ = status.st_dev;
  inode_ = status.st_ino;
  return {};
}

Result<void> SocketName::replaceLeftover() {
  const UniqueFd found(::openat(folder_.get(), name_.c_str(), O_PATH | O_CLOEXEC | O_NOFOLLOW));
  if (!found) return errno == ENOENT ? Result<void>() : socketFailure("what has the name");
  struct stat status{};
  if (::fstat(found.get(), &status) != 0) return socketFailure("what has the name");
  if (!S_ISSOCK(status.st_mode)) {
    return std::unexpected(Error{ErrorCode::kInvalid, EEXIST, "something else has the name"});
  }
  // A listening owner accepts, or its backlog is full; only a socket without an owner refuses.
  const auto connected = connectOnce(found);
  if (connected || connected.error().osError != ECONNREFUSED) {
    return std::unexpected(
        Error{ErrorCode::kDenied, EADDRINUSE, "another process listens on the name"});
  }
  if (::unlinkat(folder_.get(), name_.c_str(), 0) != 0 && errno != ENOENT) {
    return socketFailure("removing what a dead process has left");
  }
  return {};
}

void SocketName::remove() {
  struct stat status{};
  if (inode_ != 0 && folder_ &&
      ::fstatat(folder_.get(), name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0 &&
      status.st_dev == device_ && status.st_ino == inode_) {
    ::unlinkat(folder_.get(), name_.c_str(), 0);
  }
  inode_ = 0;
}

Result<UniqueFd> connectToSocket(const std::string& path, Duration wait) {
  const auto deadline = Clock::now() + wait;
  const UniqueFd target(::open(path.c_str(), O_PATH | O_CLOEXEC));
  if (!target) return socketFailure("connecting to " + path);
  struct stat status{};
  if (::fstat(target.get(), &status) != 0) return socketFailure("connecting to " + path);
  if (!S_ISSOCK(status.st_mode)) {
    return std::unexpected(Error{ErrorCode::kInvalid, ENOTSOCK, "connecting to " + path});
  }
  for (;;) {
    auto connected = connectOnce(target);
    if (connected) return connected;
    // The kernel does not report when the backlog has room again.
    if (connected.error().osError != EAGAIN || Clock::now() >= deadline) {
      connected.error().context = "connecting to " + path;
      return connected;
    }
    std::this_thread::sleep_for(kRetryPause);
  }
}

}  // namespace platform
