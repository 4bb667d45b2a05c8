#include "Shared/Categories/NSFileManagerExtensions.h"

#include <utility>

#include "Platform/Texts/StringFormat.h"
#include "Shared/Categories/NSStringExtensions.h"

namespace NSFileManagerExtensions {
namespace {

using platform::Dictionary;

constexpr char kErrorDomain[] = "com.vantor.extensions";
constexpr std::int64_t kSubstringErrorCode = 1;

constexpr std::int64_t kRootId = 0;
constexpr std::int64_t kAdminGroupId = 80;

constexpr std::string_view kHome = "~/";
constexpr char kWildcard = '*';

using Paths = std::vector<std::string>;

Dictionary rootAdminAttributes(std::int64_t permissions) {
  return {{platform::NSFileOwnerAccountID, kRootId},
          {platform::NSFileGroupOwnerAccountID, kAdminGroupId},
          {platform::NSFilePosixPermissions, permissions}};
}

NSError tooManyPaths(std::string_view folder) {
  return {platform::NSCocoaErrorDomain, platform::NSFileReadUnknownError,
          platform::stringWithFormat("%@: gives more than the %lu paths that are looked at", folder,
                                     kMaximumPaths)};
}

bool isNotThere(const NSError& error) {
  return error.code == platform::NSFileNoSuchFileError ||
         error.code == platform::NSFileReadNoSuchFileError;
}

// A path without its last component, and that component; slashes at the end are ignored.
struct SplitPath {
  std::string_view folder;  // for listing it
  std::string_view joined;  // for putting a slash and a name after it: empty for "/"
  std::string_view last;
};

SplitPath split(std::string_view path) {
  const std::size_t end = path.find_last_not_of('/');
  if (end == path.npos) return {"/", "", "/"};
  path = path.substr(0, end + 1);
  const std::size_t slash = path.rfind('/');
  if (slash == path.npos) return {"", "", path};
  const std::string_view last = path.substr(slash + 1);
  const std::size_t folderEnd = path.find_last_not_of('/', slash);
  if (folderEnd == path.npos) return {"/", "", last};
  const std::string_view folder = path.substr(0, folderEnd + 1);
  return {folder, folder, last};
}

// The last component of a path, for comparing it with the names of a folder.
class Pattern {
 public:
  explicit Pattern(std::string_view component)
      : component_(component), wildcard_(component.find(kWildcard)) {}

  bool hasWildcard() const { return wildcard_ != component_.npos; }

  bool matches(std::string_view name) const {
    using namespace NSStringExtensions;
    if (!hasWildcard()) return name == component_;
    const std::string_view prefix = component_.substr(0, wildcard_);
    const std::string_view suffix = component_.substr(wildcard_ + 1);
    // Each is compared on its own, so that they may overlap.
    return (prefix.empty() || hasPrefixCaseInsensitiveSearch(name, prefix)) &&
           (suffix.empty() || hasSuffixCaseInsensitiveSearch(name, suffix));
  }

 private:
  std::string_view component_;
  std::size_t wildcard_;
};

// Adds the matches of one expanded path.
Result<void, NSError> addMatches(FileManager& manager, const std::string& path, Paths& matches) {
  const SplitPath parts = split(path);
  const Pattern pattern(parts.last);
  bool tooMany = false;
  const auto listed = manager.eachNameInDirectory(parts.folder, [&](std::string_view name) {
    if (!pattern.matches(name)) return true;
    tooMany = matches.size() == kMaximumPaths;
    if (tooMany) return false;
    if (!pattern.hasWildcard()) {
      matches.push_back(path);
      return false;  // No other entry has the same name.
    }
    std::string& match = matches.emplace_back();
    match.reserve(parts.joined.size() + 1 + name.size());
    match.append(parts.joined).append(1, '/').append(name);
    return true;
  });
  if (!listed && !isNotThere(listed.error())) return listed;
  if (tooMany) return std::unexpected(tooManyPaths(parts.folder));
  return {};
}

}  // namespace

const Dictionary& rootAdminDirectoryAttributes() {
  static const Dictionary sRootAdminDirectoryAttributes = rootAdminAttributes(0755);
  return sRootAdminDirectoryAttributes;
}

const Dictionary& rootAdminFileAttributes() {
  static const Dictionary sRootAdminFileAttributes = rootAdminAttributes(0644);
  return sRootAdminFileAttributes;
}

Result<void, NSError> createDeepDirectoryAtPath(FileManager& receiver, std::string_view path,
                                                const Dictionary* attributes) {
  return receiver.defaultManager().createDirectory(path, attributes);
}

Result<void, NSError> copyAndOverwriteItemAtPath(FileManager& receiver,
                                                 std::optional<std::string_view> path,
                                                 std::optional<std::string_view> toPath) {
  if (NSStringExtensions::isNilOrWhiteSpace(path) ||
      NSStringExtensions::isNilOrWhiteSpace(toPath)) {
    return std::unexpected(NSError());
  }
  return receiver.overwriteWithCopy(*path, *toPath);
}

Result<Paths, NSError> expandPathForAllUsers(FileManager& receiver,
                                             std::optional<std::string_view> path) {
  if (NSStringExtensions::isNilOrWhiteSpace(path)) return Paths();
  if (!path->starts_with(kHome)) return Paths{std::string(*path)};
  const std::string& root = receiver.usersRoot();
  Paths paths;
  bool tooMany = false;
  const auto listed = receiver.eachNameInDirectory(root, [&](std::string_view name) {
    tooMany = paths.size() == kMaximumPaths;
    if (tooMany) return false;
    paths.push_back(root + "/");
    paths.back().append(name).append("/").append(path->substr(kHome.size()));
    return true;
  });
  if (!listed) return std::unexpected(listed.error());
  if (tooMany) return std::unexpected(tooManyPaths(root));
  return paths;
}

Result<Paths, NSError> matchesForWildCardedPath(FileManager& receiver,
                                                std::optional<std::string_view> path) {
  auto expanded = expandPathForAllUsers(receiver, path);
  if (!expanded) return expanded;
  Paths matches;
  for (const std::string& one : *expanded) {
    if (auto added = addMatches(receiver, one, matches); !added) {
      return std::unexpected(std::move(added.error()));
    }
  }
  return matches;
}

NSError substringError(platform::NSRange prefixRange, platform::NSRange suffixRange,
                       const std::optional<std::string>& prefix,
                       const std::optional<std::string>& suffix,
                       const platform::NSException& exception) {
  return {kErrorDomain, kSubstringErrorCode,
          platform::stringWithFormat("NSFileManager+Extensions: Error to substringWithRange. "
                                     "prefixRange location: %ld, prefixRange length: %ld "
                                     "suffixRange location: %ld, suffixRange length: %ld "
                                     "prefix: %@, suffix: %@ exception: %@",
                                     prefixRange.location, prefixRange.length, suffixRange.location,
                                     suffixRange.length, prefix, suffix, exception)};
}

}  // namespace NSFileManagerExtensions
