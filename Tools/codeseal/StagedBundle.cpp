#include "Tools/codeseal/StagedBundle.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <system_error>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Files/AttributeCopy.h"
#include "Platform/Linux/Files/FileCopy.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace {

using namespace platform;
namespace fs = std::filesystem;

Result<void> failed(const fs::path& path) {
  return std::unexpected(systemError(path.string(), errorCodeOf(errno)));
}

UniqueFd openFolder(const fs::path& path) {
  return UniqueFd(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
}

// The times come last: the entries of a folder change them.
Result<void> copyFolderAttributes(const fs::path& from, const fs::path& to) {
  const UniqueFd source = openFolder(from);
  const UniqueFd copy = openFolder(to);
  struct stat status{};
  if (!source || !copy || ::fstat(source.get(), &status) != 0) return failed(from);
  // Only root can give a folder away; a folder that stays the caller's is no harm.
  [[maybe_unused]] const int given = ::fchown(copy.get(), status.st_uid, status.st_gid);
  if (::fchmod(copy.get(), status.st_mode & 07777) != 0) return failed(to);
  if (auto copied = copyExtendedAttributes(source.get(), copy.get(), from.string()); !copied) {
    return copied;
  }
  const timespec times[] = {status.st_atim, status.st_mtim};
  if (::futimens(copy.get(), times) != 0) return failed(to);
  return {};
}

Result<void> copyEntry(const fs::directory_entry& entry, const fs::path& to) {
  std::error_code error;
  if (entry.is_symlink(error)) {
    const fs::path target = fs::read_symlink(entry.path(), error);
    if (error || ::symlink(target.c_str(), to.c_str()) != 0) return failed(entry.path());
    return {};
  }
  if (entry.is_directory(error)) {
    return ::mkdir(to.c_str(), S_IRWXU) == 0 ? Result<void>() : failed(to);
  }
  if (::link(entry.path().c_str(), to.c_str()) == 0) return {};
  // The file system has no hard links, or the file belongs to another user.
  if (const auto copied = overwriteWithCopyOfFile(entry.path(), to); !copied) {
    return std::unexpected(Error{ErrorCode::kSystem, 0, copied.error().localizedDescription});
  }
  return {};
}

// For a file system that can't exchange two folders. A crash between the two steps leaves the old
// bundle in the folder beside it.
Result<void> replaceFolder(const fs::path& original, const fs::path& copy, const fs::path& aside) {
  if (::rename(original.c_str(), aside.c_str()) != 0) return failed(original);
  if (::rename(copy.c_str(), original.c_str()) == 0) return {};
  const auto failure = failed(original);
  ::rename(aside.c_str(), original.c_str());
  return failure;
}

Result<void> copyTree(const fs::path& from, const fs::path& to) {
  if (::mkdir(to.c_str(), S_IRWXU) != 0) return failed(to);
  std::vector<fs::path> folders{fs::path()};
  std::error_code error;
  for (fs::recursive_directory_iterator entry(from, error), end; !error && entry != end;
       entry.increment(error)) {
    const fs::path below = entry->path().lexically_relative(from);
    if (auto copied = copyEntry(*entry, to / below); !copied) return copied;
    if (entry->is_directory(error) && !entry->is_symlink(error)) folders.push_back(below);
  }
  if (error) return std::unexpected(Error{ErrorCode::kSystem, error.value(), from.string()});
  // A folder without write permission could not be filled, so the deepest come first.
  for (auto below = folders.rbegin(); below != folders.rend(); ++below) {
    if (auto copied = copyFolderAttributes(from / *below, to / *below); !copied) return copied;
  }
  return {};
}

}  // namespace

Result<StagedBundle> StagedBundle::make(const std::string& path) {
  const fs::path original(path);
  StagedBundle staged;
  staged.original_ = path;
  std::string folder = (original.parent_path() / ".codeseal.XXXXXX").string();
  if (::mkdtemp(folder.data()) == nullptr) return std::unexpected(systemError(folder));
  staged.folder_ = folder;
  staged.path_ = (fs::path(folder) / original.filename()).string();
  if (auto copied = copyTree(original, staged.path_); !copied) {
    return std::unexpected(copied.error());
  }
  return staged;
}

StagedBundle::StagedBundle(StagedBundle&& other) noexcept
    : original_(std::move(other.original_)),
      folder_(std::exchange(other.folder_, {})),
      path_(std::move(other.path_)) {}

StagedBundle::~StagedBundle() {
  std::error_code ignored;
  if (!folder_.empty()) fs::remove_all(folder_, ignored);
}

Result<void> StagedBundle::commit() {
  if (::renameat2(AT_FDCWD, path_.c_str(), AT_FDCWD, original_.c_str(), RENAME_EXCHANGE) != 0) {
    if (errno != EINVAL && errno != ENOSYS) return failed(original_);
    const auto replaced = replaceFolder(original_, path_, fs::path(folder_) / "old");
    if (!replaced) return replaced;
  }
  // Makes the exchange survive a crash. The bundle is in place already, so a failure is ignored.
  const UniqueFd parent = openFolder(fs::path(original_).parent_path());
  if (parent) ::fsync(parent.get());
  return {};
}
