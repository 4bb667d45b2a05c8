#include "Platform/Linux/Files/PropertyListFile.h"

#include <cerrno>
#include <cstdlib>
#include <span>
#include <utility>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Files/RegularFile.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/PropertyLists/PropertyListLimits.h"

namespace platform {
namespace {

Error fileError(std::string context) {
  switch (errno) {
    case ENOENT:
    case ENOTDIR:
      return systemError(std::move(context), ErrorCode::kNotFound);
    case EACCES:
    case EPERM:
      return systemError(std::move(context), ErrorCode::kDenied);
    case ENOSPC:
    case EDQUOT:
    case EMFILE:
    case ENFILE:
    case ENOMEM:
      return systemError(std::move(context), ErrorCode::kExhausted);
    default:  // Other numbers of the system.
      return systemError(std::move(context));
  }
}

// A file with a temporary name. It is removed unless it is renamed to its final name.
class TemporaryFile {
 public:
  static Result<TemporaryFile> createBeside(const std::string& path) {
    const std::size_t slash = path.rfind('/');
    TemporaryFile file;
    // It does not include the final name, which may have the maximum length already.
    file.name_ = path.substr(0, slash == std::string::npos ? 0 : slash + 1) + ".plist.XXXXXX";
    file.fd_ = UniqueFd(::mkostemp(file.name_.data(), O_CLOEXEC));
    if (!file.fd_) return std::unexpected(fileError(path + ": no temporary file beside it"));
    return file;
  }

  TemporaryFile(TemporaryFile&& other) noexcept
      : name_(std::exchange(other.name_, {})), fd_(std::move(other.fd_)) {}
  TemporaryFile& operator=(TemporaryFile&&) = delete;
  ~TemporaryFile() {
    if (fd_) ::unlink(name_.c_str());
  }

  const UniqueFd& fd() const { return fd_; }

  bool renameTo(const std::string& path) {
    if (::rename(name_.c_str(), path.c_str()) != 0) return false;
    fd_.reset();
    return true;
  }

 private:
  TemporaryFile() = default;

  std::string name_;
  UniqueFd fd_;
};

bool writeAll(const UniqueFd& file, std::span<const std::uint8_t> bytes) {
  while (!bytes.empty()) {
    const auto written =
        retryOnInterrupt([&] { return ::write(file.get(), bytes.data(), bytes.size()); });
    if (written < 0) return false;
    bytes = bytes.subspan(static_cast<std::size_t>(written));
  }
  return true;
}

mode_t modeOfReplaced(const std::string& path) {
  constexpr mode_t kNewFileMode = 0644;
  struct stat status{};
  const bool replaces = ::lstat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
  return replaces ? status.st_mode & 0777 : kNewFileMode;
}

// Makes the new name survive a crash. Some file systems refuse to synchronise a folder. The list is
// in place already, so that is no failure.
void synchronizeFolderOf(const std::string& path) {
  const std::size_t slash = path.rfind('/');
  const std::string folder = slash == std::string::npos ? "." : path.substr(0, slash + 1);
  const UniqueFd fd(::open(folder.c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC));
  if (fd) ::fsync(fd.get());
}

}  // namespace

Result<Value> readPropertyListFile(const std::string& path) {
  const auto file = openRegularFile(path);
  if (!file) return std::unexpected(file.error());
  // One byte above the limit makes readPropertyList() refuse it.
  const auto content = readAtMost(file->get(), kMaxPropertyListBytes + 1, path);
  if (!content) return std::unexpected(content.error());
  return readPropertyList(*content, path);
}

Result<void> writePropertyListFile(const std::string& path, const Value& value,
                                   PropertyListFormat format) {
  const Result<Data> bytes = writePropertyList(value, format);
  if (!bytes) {
    Error error = bytes.error();
    error.context = path + ": " + error.context;
    return std::unexpected(std::move(error));
  }
  auto file = TemporaryFile::createBeside(path);
  if (!file) return std::unexpected(file.error());
  if (!writeAll(file->fd(), *bytes)) return std::unexpected(fileError(path + ": can't be written"));
  if (::fchmod(file->fd().get(), modeOfReplaced(path)) != 0) {
    return std::unexpected(fileError(path + ": can't be given its mode"));
  }
  if (retryOnInterrupt([&] { return ::fsync(file->fd().get()); }) != 0) {
    return std::unexpected(fileError(path + ": can't be synchronised"));
  }
  if (!file->renameTo(path)) return std::unexpected(fileError(path + ": can't be replaced"));
  synchronizeFolderOf(path);
  return {};
}

}  // namespace platform
