#include "Platform/Files/FileOwner.h"

#include <optional>
#include <vector>

#include <fcntl.h>
#include <linux/securebits.h>
#include <pwd.h>
#include <sys/fsuid.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {

namespace {

constexpr uid_t kRoot = 0;
constexpr gid_t kNoGroup = 65534;

std::unexpected<Error> denied(const std::string& path, const char* why) {
  return std::unexpected(Error{ErrorCode::kDenied, 0, path + ": " + why});
}

// The one user, besides root, who owns any part of the path from `home` on; root if there is none.
Result<uid_t> ownerOf(const std::string& home, const std::string& file) {
  struct stat status{};
  if (::stat(home.c_str(), &status) != 0) {
    return std::unexpected(
        systemError(home, errno == ENOENT ? ErrorCode::kNotFound : ErrorCode::kSystem));
  }
  uid_t owner = status.st_uid;
  for (std::size_t end = 0; end != std::string::npos;) {
    end = file.find('/', end == 0 ? 0 : end + 1);
    const std::string path = home + "/" + file.substr(0, end);
    if (::lstat(path.c_str(), &status) != 0) {
      if (errno == ENOENT && end == std::string::npos) break;  // The file may be missing.
      return std::unexpected(
          systemError(path, errno == ENOENT ? ErrorCode::kNotFound : ErrorCode::kSystem));
    }
    if (owner == kRoot) owner = status.st_uid;
    if (status.st_uid != kRoot && status.st_uid != owner) {
      return denied(path, "belongs to another user than what it is in");
    }
  }
  return owner;
}

// An unknown user has the group of nobody.
gid_t primaryGroupOf(uid_t user) {
  constexpr std::size_t kBytes = std::size_t{1} << 20;
  std::vector<char> buffer(kBytes);
  passwd entry{};
  passwd* found = nullptr;
  const int error = ::getpwuid_r(user, &entry, buffer.data(), buffer.size(), &found);
  return error == 0 && found ? found->pw_gid : kNoGroup;
}

// The C library's function would change the groups of every thread.
bool setGroupsOfThread(const std::vector<gid_t>& groups) {
  return ::syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

// These two calls report failure only by their effect; -1 is no valid user and changes nothing.
bool setUser(uid_t user) {
  ::setfsuid(user);
  return static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1))) == user;
}
bool setGroup(gid_t group) {
  ::setfsgid(group);
  return static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1))) == group;
}

// The file permissions of this thread. If the user is not root, the kernel also removes root's
// capabilities on files, unless a securebit forbids that.
class FileRights {
 public:
  FileRights() = default;
  FileRights(const FileRights&) = delete;
  FileRights& operator=(const FileRights&) = delete;
  ~FileRights() {
    if (user_) ::setfsuid(*user_);
    if (group_) ::setfsgid(*group_);
    if (groups_) setGroupsOfThread(*groups_);
  }

  // True if the thread now has all permissions of that user; else it may have some until the
  // destructor.
  bool take(uid_t user, gid_t group) {
    const int securebits = ::prctl(PR_GET_SECUREBITS);
    if (securebits < 0 || (securebits & SECBIT_NO_SETUID_FIXUP) != 0) return false;
    const int count = ::getgroups(0, nullptr);
    if (count < 0) return false;
    std::vector<gid_t> groups(static_cast<std::size_t>(count));
    if (::getgroups(count, groups.data()) != count || !setGroupsOfThread({group})) return false;
    groups_ = std::move(groups);
    group_ = static_cast<gid_t>(::setfsgid(static_cast<gid_t>(-1)));
    if (!setGroup(group)) return false;
    user_ = static_cast<uid_t>(::setfsuid(static_cast<uid_t>(-1)));
    return setUser(user);
  }

 private:
  // The old values of those that were changed.
  std::optional<uid_t> user_;
  std::optional<gid_t> group_;
  std::optional<std::vector<gid_t>> groups_;
};

}  // namespace

Result<void> performAsOwnerOf(const std::string& home, const std::string& file,
                              const std::function<void()>& action) {
  FileRights rights;
  if (::geteuid() == kRoot) {
    const auto owner = ownerOf(home, file);
    if (!owner) return std::unexpected(owner.error());
    if (*owner != kRoot && !rights.take(*owner, primaryGroupOf(*owner))) {
      return denied(home, "its owner's rights can't be taken");
    }
  }
  action();
  return {};
}

int openWithoutWaiting(const char* path, int flags, int mode) {
  UniqueFd file(retryOnInterrupt(
      [&] { return ::open(path, flags | O_NONBLOCK | O_NOCTTY, static_cast<mode_t>(mode)); }));
  if (!file) return -1;
  struct stat status{};
  if (::fstat(file.get(), &status) != 0) return -1;
  const bool isBounded = S_ISREG(status.st_mode) && status.st_size <= kMostFileBytes;
  if (isBounded || S_ISDIR(status.st_mode)) return file.release();
  file.reset();
  errno = EINVAL;
  return -1;
}

}  // namespace platform
