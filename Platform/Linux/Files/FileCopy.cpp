#include "Platform/Linux/Files/FileCopy.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <memory>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Files/FileManager.h"
#include "Platform/Linux/Files/CocoaFileErrors.h"
#include "Platform/Linux/Files/ReplacementFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

constexpr std::size_t kCopyPieceBytes = 128 * 1024;

std::unexpected<NSError> readFailure(const std::string& path, int number) {
  return std::unexpected(cocoaReadError(path, number));
}

std::unexpected<NSError> writeFailure(const std::string& path, int number) {
  return std::unexpected(cocoaWriteError(path, number));
}

struct Source {
  UniqueFd file;
  struct stat status{};
};

// Does not block on a pipe or a device. Content and attributes are read from the same open file,
// whatever happens to the path meanwhile: this content with another file's owner and set-user-id
// bit would be dangerous. Unlike openRegularFile(), it follows links, as copying does.
Result<Source, NSError> openSource(const std::string& path) {
  Source source;
  source.file = UniqueFd(retryOnInterrupt(
      [&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY); }));
  if (!source.file) return readFailure(path, errno);
  if (::fstat(source.file.get(), &source.status) != 0) return readFailure(path, errno);
  if (S_ISDIR(source.status.st_mode)) return readFailure(path, EISDIR);
  if (!S_ISREG(source.status.st_mode)) {
    return std::unexpected(
        NSError{NSCocoaErrorDomain, NSFileReadUnknownError, path + ": is not a regular file"});
  }
  return source;
}

// The limit for a file without a reported size, as in /proc and /sys.
constexpr std::uint64_t kUnreportedSizeLimit = std::uint64_t{16} << 20;

// Copies as much as the file had when it was opened, so that a growing file has an end, too.
Result<void, NSError> copyContent(const Source& source, const std::string& sourcePath,
                                  ReplacementFile& copy, const std::string& destination) {
  const auto piece = std::make_unique_for_overwrite<std::uint8_t[]>(kCopyPieceBytes);
  // Without a block on the disk, the reported size may be 0, or one page, whatever the content.
  const bool tellsSize = source.status.st_blocks > 0;
  const auto size = tellsSize
                        ? static_cast<std::uint64_t>(source.status.st_size)
                        : std::max<std::uint64_t>(source.status.st_size, kUnreportedSizeLimit);
  for (std::uint64_t done = 0; done < size;) {
    const auto wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(size - done, kCopyPieceBytes));
    const ssize_t count =
        retryOnInterrupt([&] { return ::read(source.file.get(), piece.get(), wanted); });
    if (count < 0) return readFailure(sourcePath, errno);
    if (count == 0 && !tellsSize) return {};
    if (count == 0) {
      return std::unexpected(NSError{NSCocoaErrorDomain, NSFileReadUnknownError,
                                     sourcePath + ": became shorter while it was read"});
    }
    const auto bytes = static_cast<std::size_t>(count);
    if (const auto written = copy.append({piece.get(), bytes}); !written) {
      return writeFailure(destination, written.error().osError);
    }
    done += bytes;
  }
  return {};
}

// The order matters: changing the owner clears the set-user-id bit. Uses the descriptor, so that
// another file at the path is not changed.
Result<void, NSError> applyAttributesToCopy(const struct stat& status, int file,
                                            const std::string& destination) {
  const timespec times[] = {status.st_atim, status.st_mtim};
  if (::fchown(file, status.st_uid, static_cast<gid_t>(-1)) != 0 ||
      ::fchown(file, static_cast<uid_t>(-1), status.st_gid) != 0 ||
      ::fchmod(file, status.st_mode & 07777) != 0 || ::futimens(file, times) != 0) {
    return writeFailure(destination, errno);
  }
  return {};
}

}  // namespace

Result<void, NSError> overwriteWithCopyOfFile(const std::string& source,
                                              const std::string& destination) {
  const auto opened = openSource(source);
  if (!opened) return std::unexpected(opened.error());
  auto copy = ReplacementFile::createFor(destination);
  if (!copy) return writeFailure(destination, copy.error().osError);
  if (auto copied = copyContent(*opened, source, *copy, destination); !copied) return copied;
  if (const auto placed = copy->commit(); !placed) {
    return writeFailure(destination, placed.error().osError);
  }
  return applyAttributesToCopy(opened->status, copy->descriptor(), destination);
}

}  // namespace platform
