#include "Platform/Linux/Files/ReplacementFile.h"

#include <cerrno>
#include <cstdlib>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Files/FilePieces.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {
namespace {

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
  return readPieces(file, 0, size, path_,
                    [this](std::span<const std::uint8_t> piece) { return append(piece); });
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
