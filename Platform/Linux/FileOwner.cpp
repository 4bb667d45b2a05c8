#include "Platform/FileOwner.h"

#include <vector>

#include <fcntl.h>
#include <sys/fsuid.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "Platform/Linux/SystemCall.h"

namespace platform {

namespace {

// The library's function would change the groups of every thread.
bool setGroupsOfThread(const std::vector<gid_t>& groups) {
  return ::syscall(SYS_setgroups, groups.size(), groups.data()) == 0;
}

// The rights of this thread on files. With another user than root the kernel also takes away what
// lets root do everything with them.
class FileRights {
 public:
  FileRights(uid_t user, gid_t group) {
    const int count = ::getgroups(0, nullptr);
    groups_.resize(static_cast<std::size_t>(count > 0 ? count : 0));
    hasOtherGroups_ =
        count >= 0 && ::getgroups(count, groups_.data()) == count && setGroupsOfThread({group});
    group_ = static_cast<gid_t>(::setfsgid(group));
    user_ = static_cast<uid_t>(::setfsuid(user));
  }
  FileRights(const FileRights&) = delete;
  FileRights& operator=(const FileRights&) = delete;
  ~FileRights() {
    ::setfsuid(user_);
    ::setfsgid(group_);
    if (hasOtherGroups_) setGroupsOfThread(groups_);
  }

 private:
  uid_t user_;
  gid_t group_;
  std::vector<gid_t> groups_;
  bool hasOtherGroups_;
};

}  // namespace

void performAsOwnerOf(const std::string& path, const std::function<void()>& action) {
  struct stat status{};
  if (::geteuid() != 0 || ::stat(path.c_str(), &status) != 0) return action();
  const FileRights rights(status.st_uid, status.st_gid);
  action();
}

int openWithoutWaiting(const char* path, int flags, int mode) {
  return retryOnInterrupt(
      [&] { return ::open(path, flags | O_NONBLOCK | O_NOCTTY, static_cast<mode_t>(mode)); });
}

}  // namespace platform
