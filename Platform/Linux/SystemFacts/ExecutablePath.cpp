#include "Platform/Linux/SystemFacts/ExecutablePath.h"

#include <array>
#include <cerrno>
#include <string_view>

#include <limits.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

constexpr std::string_view kDeleted = " (deleted)";

bool nameSameFile(const std::string& one, const std::string& other) {
  struct stat first{};
  struct stat second{};
  return ::stat(one.c_str(), &first) == 0 && ::stat(other.c_str(), &second) == 0 &&
         first.st_dev == second.st_dev && first.st_ino == second.st_ino;
}

}  // namespace

Result<std::string> executablePathOfLink(const std::string& link) {
  std::array<char, PATH_MAX> target;
  const ssize_t length = ::readlink(link.c_str(), target.data(), target.size());
  if (length < 0) {
    const bool absent = errno == ENOENT || errno == ESRCH;
    return std::unexpected(systemError(link, absent ? ErrorCode::kNotFound : ErrorCode::kSystem));
  }
  std::string path(target.data(), static_cast<std::size_t>(length));
  // A path that fills the buffer is cut off. A file outside our root folder has no full path.
  if (path.size() == target.size() || !path.starts_with('/')) {
    return std::unexpected(Error{ErrorCode::kNotFound, 0, link + ": leads to no full path"});
  }
  // The kernel appends the mark to the path of a deleted file, but a file's own name may end with
  // it. The link still leads to the running file, so it tells the two cases apart.
  if (path.ends_with(kDeleted) && !nameSameFile(path, link)) {
    path.resize(path.size() - kDeleted.size());
  }
  return path;
}

Result<std::string> runningExecutablePath() { return executablePathOfLink("/proc/self/exe"); }

}  // namespace platform
