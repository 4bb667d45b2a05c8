#include "Platform/Linux/Files/FileCopy.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <optional>
#include <span>
#include <vector>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Files/FileManager.h"
#include "Platform/Linux/Files/CocoaFileErrors.h"
#include "Platform/Linux/Files/FilePieces.h"
#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/Files/ReplacementFile.h"

namespace platform {
namespace {

std::unexpected<NSError> readFailure(const std::string& path, int number) {
  return std::unexpected(cocoaReadError(path, number));
}

std::unexpected<NSError> readFailure(const std::string& path, const Error& error) {
  if (error.osError != 0) return readFailure(path, error.osError);
  return std::unexpected(NSError{NSCocoaErrorDomain, NSFileReadUnknownError, error.context});
}

std::unexpected<NSError> writeFailure(const std::string& path, int number) {
  return std::unexpected(cocoaWriteError(path, number));
}

// Content and attributes are of the same file, whatever happens to the path meanwhile: this content
// with another file's owner and set-user-id bit would be dangerous. It follows links, as copying
// does.
Result<RegularFile, NSError> openSource(const std::string& path) {
  const auto found = findFile(path, FinalLink::kFollow);
  if (!found) return readFailure(path, found.error());
  if (S_ISDIR(found->status.st_mode)) return readFailure(path, EISDIR);
  auto source = openFoundFile(*found, path);
  if (!source) return readFailure(path, source.error());
  return *std::move(source);
}

// The limit for a file without a reported size, as in /proc and /sys.
constexpr std::uint64_t kUnreportedSizeLimit = std::uint64_t{16} << 20;

// Reads to the end of the file. A larger one is not cut, because half a file is no copy.
Result<void> readToItsEnd(int file, std::uint64_t limit, const std::string& path,
                          const TakePiece& take) {
  std::vector<std::uint8_t> piece(kPieceBytes);
  for (std::uint64_t done = 0;;) {
    const auto count = readAt(file, done, piece, path);
    if (!count) return std::unexpected(count.error());
    if (*count == 0) return {};
    done += *count;
    if (done > limit) return invalid(fmt::format("{}: is larger than {} bytes", path, limit));
    if (auto taken = take(std::span(piece).first(*count)); !taken) return taken;
  }
}

// Copies as much as the file had when it was opened.
Result<void, NSError> copyContent(const RegularFile& source, const std::string& sourcePath,
                                  ReplacementFile& copy, const std::string& destination) {
  std::optional<int> writeError;
  const auto write = [&](std::span<const std::uint8_t> piece) {
    auto written = copy.append(piece);
    if (!written) writeError = written.error().osError;
    return written;
  };
  // Without a block on the disk, the reported size may be 0, or one page, whatever the content.
  const auto size = static_cast<std::uint64_t>(source.status.st_size);
  const auto copied =
      source.status.st_blocks > 0
          ? readPieces(source.get(), 0, size, sourcePath, write)
          : readToItsEnd(source.get(), std::max(size, kUnreportedSizeLimit), sourcePath, write);
  if (copied) return {};
  if (writeError) return writeFailure(destination, *writeError);
  return readFailure(sourcePath, copied.error());
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
  // The attributes come first: a crash must not leave a copy that its readers can't open.
  const auto applied = applyAttributesToCopy(opened->status, copy->descriptor(), destination);
  if (const auto placed = copy->commit(); !placed) {
    return writeFailure(destination, placed.error().osError);
  }
  return applied;
}

}  // namespace platform
