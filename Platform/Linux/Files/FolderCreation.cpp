#include "Platform/Linux/Files/FolderCreation.h"

#include <algorithm>
#include <cerrno>
#include <cstdint>
#include <limits>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Files/FileManager.h"
#include "Platform/Linux/Files/CocoaFileErrors.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

constexpr std::int64_t kMostPermissions = 07777;
// All bits set would tell the system to leave the id unchanged.
constexpr std::int64_t kMostAccountId = std::numeric_limits<std::uint32_t>::max() - 1;

struct Attributes {
  std::optional<std::int64_t> owner;
  std::optional<std::int64_t> group;
  std::optional<std::int64_t> permissions;
};

Result<std::optional<std::int64_t>, NSError> readAttribute(const Dictionary& attributes,
                                                           const char* key, std::int64_t most,
                                                           const std::string& path) {
  if (!attributes.contains(key)) return std::nullopt;
  const auto number = attributes[key].integer();
  if (number && *number >= 0 && *number <= most) return number;
  return std::unexpected(NSError{
      NSCocoaErrorDomain, NSFileWriteUnknownError,
      path + ": its attribute " + key + " must be an integer from 0 to " + std::to_string(most)});
}

Result<Attributes, NSError> readAttributes(const Dictionary& attributes, const std::string& path) {
  const auto owner = readAttribute(attributes, NSFileOwnerAccountID, kMostAccountId, path);
  if (!owner) return std::unexpected(owner.error());
  const auto group = readAttribute(attributes, NSFileGroupOwnerAccountID, kMostAccountId, path);
  if (!group) return std::unexpected(group.error());
  const auto permissions =
      readAttribute(attributes, NSFilePosixPermissions, kMostPermissions, path);
  if (!permissions) return std::unexpected(permissions.error());
  return Attributes{*owner, *group, *permissions};
}

int applyAttributesToFolder(const Attributes& attributes, const std::string& path) {
  const UniqueFd folder(retryOnInterrupt(
      [&] { return ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC); }));
  if (!folder) return errno;
  const auto owner = static_cast<uid_t>(attributes.owner.value_or(-1));
  const auto group = static_cast<gid_t>(attributes.group.value_or(-1));
  if (::fchown(folder.get(), owner, group) != 0) return errno;
  if (attributes.permissions &&
      ::fchmod(folder.get(), static_cast<mode_t>(*attributes.permissions)) != 0) {
    return errno;
  }
  return 0;
}

// The folders that one call has made. They are removed unless the whole call succeeds.
class MadeFolders {
 public:
  MadeFolders() = default;
  MadeFolders(const MadeFolders&) = delete;
  MadeFolders& operator=(const MadeFolders&) = delete;
  ~MadeFolders() {
    std::ranges::for_each(paths_.rbegin(), paths_.rend(),
                          [](const std::string& path) { ::rmdir(path.c_str()); });
  }

  // Returns errno, 0 if the folder exists now.
  int make(const std::string& path, const std::optional<Attributes>& attributes) {
    // Nobody else may enter before the permissions are set.
    const bool decidedLater = attributes && attributes->permissions;
    if (::mkdir(path.c_str(), decidedLater ? 0700 : 0777) != 0) return errno == EEXIST ? 0 : errno;
    paths_.push_back(path);
    return attributes ? applyAttributesToFolder(*attributes, path) : 0;
  }

  void keep() { paths_.clear(); }

 private:
  std::vector<std::string> paths_;
};

bool isFolder(const std::string& path) {
  struct stat status{};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

}  // namespace

Result<void, NSError> createFolders(const std::string& path, const Dictionary* attributes) {
  std::optional<Attributes> wanted;
  if (attributes) {
    auto read = readAttributes(*attributes, path);
    if (!read) return std::unexpected(std::move(read.error()));
    wanted = *read;
  }
  MadeFolders made;
  // Up to each slash that ends a name, then the whole path.
  for (std::size_t end = 0; end != path.npos;) {
    end = path.find('/', end + 1);
    if (end != path.npos && path[end - 1] == '/') continue;
    const std::string folder = path.substr(0, end);
    if (const int number = made.make(folder, wanted); number != 0) {
      return std::unexpected(cocoaWriteError(folder, number));
    }
  }
  if (!isFolder(path)) return std::unexpected(cocoaWriteError(path, EEXIST));
  made.keep();
  return {};
}

}  // namespace platform
