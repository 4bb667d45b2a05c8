#include "Platform/Linux/Sockets/SocketBirths.h"

#include <cerrno>
#include <chrono>
#include <string>
#include <string_view>
#include <thread>
#include <tuple>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/FolderNames.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

namespace {

using namespace std::chrono_literals;
using LockClock = std::chrono::steady_clock;

constexpr char kBirthsFolder[] = ".births";
constexpr mode_t kBirthsMode = 0700;
constexpr auto kLockPause = 5ms;

std::unexpected<Error> birthsFailure(std::string what) {
  // Another kind of file has the folder's name.
  const bool isOther = errno == ELOOP || errno == ENOTDIR;
  const bool isDenied = isOther || errno == EROFS;
  return std::unexpected(
      systemError(std::move(what), isDenied ? ErrorCode::kDenied : errorCodeOf(errno)));
}

}  // namespace

Result<SocketBirths> SocketBirths::enter(const UniqueFd& namesFolder, Duration wait) {
  if (::mkdirat(namesFolder.get(), kBirthsFolder, kBirthsMode) == 0) {
    // If root makes it, the owner of the names must be able to enter it, too.
    struct stat names{};
    if (::fstat(namesFolder.get(), &names) == 0 && names.st_uid != ::geteuid()) {
      std::ignore = ::fchownat(namesFolder.get(), kBirthsFolder, names.st_uid, names.st_gid,
                               AT_SYMLINK_NOFOLLOW);
    }
  } else if (errno != EEXIST) {
    return birthsFailure("making a folder for the socket");
  }
  UniqueFd folder(::openat(namesFolder.get(), kBirthsFolder,
                           O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC));
  if (!folder) return birthsFailure("the socket's folder");
  SocketBirths births(std::move(folder));
  if (auto checked = births.check(namesFolder); !checked) return std::unexpected(checked.error());
  if (auto locked = births.lock(wait); !locked) return std::unexpected(locked.error());
  births.removeLeftovers();
  return births;
}

Result<void> SocketBirths::check(const UniqueFd& namesFolder) const {
  struct stat names{};
  struct stat births{};
  if (::fstat(namesFolder.get(), &names) != 0 || ::fstat(folder_.get(), &births) != 0) {
    return birthsFailure("the socket's folder");
  }
  if (births.st_uid == names.st_uid && (births.st_mode & 077) == 0) return {};
  return std::unexpected(
      Error{ErrorCode::kDenied, 0,
            fmt::format("the socket's folder is not trusted: expected uid {} and mode 0700, found "
                        "uid {} and mode {:04o}",
                        names.st_uid, births.st_uid, births.st_mode & 07777u)});
}

Result<void> SocketBirths::lock(Duration wait) const {
  const auto deadline = LockClock::now() + wait;
  while (::flock(folder_.get(), LOCK_EX | LOCK_NB) != 0) {
    if (errno != EWOULDBLOCK && errno != EINTR) return birthsFailure("locking the folder");
    if (LockClock::now() >= deadline) {
      return birthsFailure("another process keeps the folder's lock");
    }
    std::this_thread::sleep_for(kLockPause);
  }
  return {};
}

// The process that has the lock is the only one with a socket here. A leftover that can't be found
// now is removed by the next process.
void SocketBirths::removeLeftovers() const {
  UniqueFd copy(::openat(folder_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (!copy) return;
  std::ignore = eachNameInFolder(std::move(copy), [this](std::string_view name) {
    ::unlinkat(folder_.get(), std::string(name).c_str(), 0);
    return true;
  });
}

UniqueFd SocketBirths::leave() {
  ::flock(folder_.get(), LOCK_UN);
  return std::move(folder_);
}

}  // namespace platform
