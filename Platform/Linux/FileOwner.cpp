#include "Platform/FileOwner.h"

#include <sys/fsuid.h>
#include <sys/stat.h>
#include <unistd.h>

namespace platform {

namespace {

// The rights of this thread on files. With another user than root the kernel also takes away what
// lets root do everything with them.
class FileRights {
 public:
  FileRights(uid_t user, gid_t group) {
    group_ = static_cast<gid_t>(::setfsgid(group));
    user_ = static_cast<uid_t>(::setfsuid(user));
  }
  FileRights(const FileRights&) = delete;
  FileRights& operator=(const FileRights&) = delete;
  ~FileRights() {
    ::setfsuid(user_);
    ::setfsgid(group_);
  }

 private:
  uid_t user_;
  gid_t group_;
};

}  // namespace

void performAsOwnerOf(const std::string& path, const std::function<void()>& action) {
  struct stat status{};
  if (::geteuid() != 0 || ::stat(path.c_str(), &status) != 0) return action();
  const FileRights rights(status.st_uid, status.st_gid);
  action();
}

}  // namespace platform
