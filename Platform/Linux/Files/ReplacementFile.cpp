#include "Platform/Linux/Files/ReplacementFile.h"

#include <algorithm>
#include <cerrno>
#include <cstdlib>
#include <memory>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

constexpr std::size_t kReplacementPieceBytes = 128 * 1024;

std::string folderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  return slash == std::string::npos ? "." : path.substr(0, slash + 1);
}

std::unexpected<Error> replacementFailure(std::string what) {
  return std::unexpected(systemError(std::move(what), errorCodeOf(errno)));
}

}  // namespace

Result<ReplacementFile> ReplacementFile::createFor(const std::string& path) {
  ReplacementFile replacement;
  replacement.path_ = path;
  std::string name = folderOf(path) + "/.replacement.XXXXXX";
  replacement.file_ = UniqueFd(::mkostemp(name.data(), O_CLOEXEC));
  if (!replacement.file_) return replacementFailure(path + ": no file beside it");
  replacement.temporary_ = std::move(name);
  return replacement;
}

ReplacementFile::ReplacementFile(ReplacementFile&& other) noexcept
    : path_(std::move(other.path_)),
      temporary_(std::exchange(other.temporary_, {})),
      file_(std::move(other.file_)) {}

ReplacementFile::~ReplacementFile() {
  if (!temporary_.empty()) ::unlink(temporary_.c_str());
}

Result<void> ReplacementFile::append(std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const ssize_t count =
        retryOnInterrupt([&] { return ::write(file_.get(), bytes.data(), bytes.size()); });
    if (count < 0) return replacementFailure(temporary_);
    bytes = bytes.subspan(static_cast<std::size_t>(count));
  }
  return {};
}

Result<void> ReplacementFile::appendFrom(int file, std::uint64_t size) {
  const auto piece = std::make_unique_for_overwrite<std::uint8_t[]>(kReplacementPieceBytes);
  for (std::uint64_t done = 0; done < size;) {
    const auto wanted =
        static_cast<std::size_t>(std::min<std::uint64_t>(size - done, kReplacementPieceBytes));
    const ssize_t count = retryOnInterrupt(
        [&] { return ::pread(file, piece.get(), wanted, static_cast<off_t>(done)); });
    if (count < 0) return replacementFailure(path_);
    if (count == 0) {
      return std::unexpected(
          Error{ErrorCode::kInvalid, 0, path_ + ": became shorter while it was read"});
    }
    const auto bytes = static_cast<std::size_t>(count);
    if (auto written = append({piece.get(), bytes}); !written) return written;
    done += bytes;
  }
  return {};
}

Result<void> ReplacementFile::setMode(mode_t mode) {
  if (::fchmod(file_.get(), mode & 07777) != 0)
    return replacementFailure(path_ + ": can't be given its mode");
  return {};
}

Result<void> ReplacementFile::setOwnerAndMode(uid_t owner, gid_t group, mode_t mode) {
  // The order matters: giving a file away clears its set-user-id bit.
  const bool given = ::fchown(file_.get(), owner, group) == 0;
  // A set-user-id program must not run with the permissions of a different owner.
  const mode_t kept = given ? mode : mode & ~static_cast<mode_t>(S_ISUID | S_ISGID);
  return setMode(kept);
}

Result<void> ReplacementFile::synchronise() {
  if (retryOnInterrupt([&] { return ::fsync(file_.get()); }) != 0) {
    return replacementFailure(path_ + ": can't be synchronised");
  }
  return {};
}

Result<void> ReplacementFile::commit() {
  if (auto done = synchronise(); !done) return done;
  if (::rename(temporary_.c_str(), path_.c_str()) != 0) {
    return replacementFailure(path_ + ": can't be replaced");
  }
  temporary_.clear();
  // Makes the name survive a crash. The file is in place already, so a failure is ignored.
  const UniqueFd folder(::open(folderOf(path_).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (folder) ::fsync(folder.get());
  return {};
}

}  // namespace platform
