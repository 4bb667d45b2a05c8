#include "Platform/Linux/Sockets/SocketName.h"

#include <chrono>
#include <cstring>
#include <thread>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/random.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

using namespace std::chrono_literals;
using Clock = std::chrono::steady_clock;

constexpr char kLockName[] = ".lock";
constexpr char kSocketInBindFolder[] = "socket";
constexpr auto kLockWait = 1s;
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

// One process at a time replaces a leftover socket. Whoever may write to the folder may open the
// lock; others must not be able to block us with it.
Result<UniqueFd> lock(const UniqueFd& folder) {
  UniqueFd file(
      ::openat(folder.get(), kLockName, O_RDONLY | O_CREAT | O_CLOEXEC | O_NOFOLLOW, 0660));
  if (!file) return socketFailure("the folder's lock");
  struct stat status{};
  if (::fstat(folder.get(), &status) == 0) {
    std::ignore = ::fchown(file.get(), static_cast<uid_t>(-1), status.st_gid);
    std::ignore = ::fchmod(file.get(), 0660);
  }
  const auto deadline = Clock::now() + kLockWait;
  while (::flock(file.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return socketFailure("locking the folder");
    if (Clock::now() >= deadline) return socketFailure("another process keeps the folder's lock");
    std::this_thread::sleep_for(kRetryPause);
  }
  return file;
}

std::string randomName() {
  std::uint64_t number = 0;
  // Once the system is up, so few bytes are never cut short.
  std::ignore = ::getrandom(&number, sizeof(number), 0);
  return fmt::format(".new-{:016x}", number);
}

}  // namespace

Result<SocketName> SocketName::take(const std::string& path, std::uint32_t mode, const Bind& bind) {
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

  const std::string temporary = randomName();
  if (::mkdirat(folder.get(), temporary.c_str(), 0700) != 0) {
    return inContext(socketFailure("making a folder for the socket").error());
  }
  UniqueFd bindFolder(
      ::openat(folder.get(), temporary.c_str(), O_PATH | O_DIRECTORY | O_CLOEXEC | O_NOFOLLOW));
  SocketName taken(std::move(folder), name, std::move(bindFolder));
  Result<void> done;
  if (!taken.bindFolder_) {
    done = socketFailure("the socket's folder");
  } else if (done = bind(pathOfDescriptor(taken.bindFolder_) + "/" + kSocketInBindFolder); done) {
    done = ::fchmodat(taken.bindFolder_.get(), kSocketInBindFolder, mode, 0) == 0
               ? taken.publish()
               : socketFailure("the socket's mode");
  }
  if (taken.bindFolder_) ::unlinkat(taken.bindFolder_.get(), kSocketInBindFolder, 0);
  ::unlinkat(taken.folder_.get(), temporary.c_str(), AT_REMOVEDIR);
  if (!done) return inContext(std::move(done.error()));
  return taken;
}

Result<void> SocketName::publish() {
  struct stat status{};
  if (::fstatat(bindFolder_.get(), kSocketInBindFolder, &status, AT_SYMLINK_NOFOLLOW) != 0) {
    return socketFailure("the new socket");
  }
  const auto link = [this] {
    return ::linkat(bindFolder_.get(), kSocketInBindFolder, folder_.get(), name_.c_str(), 0) == 0;
  };
  if (!link()) {
    if (errno != EEXIST) return socketFailure("naming the socket");
    const auto locked = lock(folder_);
    if (!locked) return std::unexpected(locked.error());
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
  if (connectOnce(found) || errno != ECONNREFUSED) {
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
