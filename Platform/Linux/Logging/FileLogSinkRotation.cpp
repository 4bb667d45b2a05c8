#include "Platform/Linux/Logging/FileLogSinkRotation.h"

#include <cerrno>
#include <cstdio>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

std::string rotatedName(const std::string& path, unsigned number) {
  return fmt::format("{}.{}", path, number);
}

std::optional<LogFileStatus> status(int folder, const char* name, int flags) {
  struct statx found{};
  constexpr unsigned kWanted = STATX_TYPE | STATX_INO | STATX_SIZE;
  if (::statx(folder, name, flags, kWanted, &found) != 0) return std::nullopt;
  const std::uint64_t device = std::uint64_t{found.stx_dev_major} << 32U | found.stx_dev_minor;
  return LogFileStatus{device, found.stx_ino, found.stx_size, S_ISREG(found.stx_mode)};
}

}  // namespace

std::optional<LogFileStatus> LogFileStatus::ofName(const std::string& path) {
  return status(AT_FDCWD, path.c_str(), AT_SYMLINK_NOFOLLOW);
}

std::optional<LogFileStatus> LogFileStatus::ofDescriptor(int descriptor) {
  return status(descriptor, "", AT_EMPTY_PATH);
}

// Locks the file that is to be renamed, through a new open file description (a forked process
// shares the locks of an old one). While the lock is held, the name still refers to that file, so
// nobody else can have started the next rotation. After the rename, a process that waited for the
// same rotation finds another file under the name.
void rotateLogFile(const std::string& path, const LogFileStatus& expected, unsigned kept) {
  const UniqueFd file(
      ::open(path.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_NOCTTY | O_CLOEXEC));
  if (!file || ::flock(file.get(), LOCK_EX | LOCK_NB) != 0) return;
  const auto opened = LogFileStatus::ofDescriptor(file.get());
  if (!opened || !opened->isSameFileAs(expected)) return;
  const auto named = LogFileStatus::ofName(path);
  if (!named || !named->isSameFileAs(expected)) return;

  // Files move only up to the first free number, so a gap saves the oldest file.
  unsigned last = 1;
  while (last < kept && ::access(rotatedName(path, last).c_str(), F_OK) == 0) ++last;
  for (unsigned number = last; number > 1; --number)
    ::rename(rotatedName(path, number - 1).c_str(), rotatedName(path, number).c_str());
  if (kept == 1) ::unlink(rotatedName(path, 1).c_str());
  // A file that somebody has put there meanwhile must not be lost, if the file system supports
  // RENAME_NOREPLACE.
  const std::string first = rotatedName(path, 1);
  if (::renameat2(AT_FDCWD, path.c_str(), AT_FDCWD, first.c_str(), RENAME_NOREPLACE) != 0 &&
      errno == EINVAL)
    ::rename(path.c_str(), first.c_str());
}

}  // namespace platform
