#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"

#include <cerrno>
#include <climits>
#include <optional>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <grp.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Digests/Digest.h"
#include "Platform/Files/FileNames.h"
#include "Platform/Linux/Files/ParentFolders.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

constexpr std::string_view kConnectionsFolder = "run/vantor/connections";
constexpr std::string_view kMachFolder = "run/vantor/mach";
constexpr std::string_view kDigestMark = "sha256-";
constexpr mode_t kConnectionsFolderMode = 01775;
constexpr std::size_t kMaxGroupEntry = std::size_t{1} << 20;

std::string digestOf(std::string_view name) {
  const std::vector<std::uint8_t> bytes(name.begin(), name.end());
  return std::string(kDigestMark) + hexadecimalText(CC_SHA256(bytes));
}

std::string pathIn(std::string_view folder, std::string_view root, std::string_view name) {
  const bool asItIs = isPlainFileName(name, NAME_MAX) && !name.starts_with(kDigestMark);
  return fmt::format("{}/{}", pathBelowRoot(root, folder), asItIs ? name : digestOf(name));
}

ErrorCode codeOfFolderError(int number) {
  // Another kind of file is in the folder's place.
  if (number == ELOOP || number == ENOTDIR) return ErrorCode::kDenied;
  return errorCodeOf(number);
}

std::unexpected<Error> folderFailure(std::string what) {
  return std::unexpected(systemError(std::move(what), codeOfFolderError(errno)));
}

Result<gid_t> groupNumber(const std::string& name) {
  std::vector<char> buffer(1024);
  group entry{};
  group* found = nullptr;
  int number = ERANGE;
  while ((number = ::getgrnam_r(name.c_str(), &entry, buffer.data(), buffer.size(), &found)) ==
             ERANGE &&
         buffer.size() < kMaxGroupEntry)
    buffer.resize(buffer.size() * 2);
  if (found != nullptr) return found->gr_gid;
  return std::unexpected(
      Error{ErrorCode::kNotFound, number, fmt::format("there is no group \"{}\"", name)});
}

// Opens the folder, so that its group and mode are set on what was checked. Whatever mode it has is
// replaced at each start: the configured group may be another one.
Result<UniqueFd> makeAndOpen(const std::string& path) {
  if (auto made = makeParentFolders(path); !made) {
    made.error().code = codeOfFolderError(made.error().osError);
    return std::unexpected(std::move(made.error()));
  }
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return folderFailure("making " + path);
  UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder) return folderFailure("opening " + path);
  struct stat status{};
  if (::fstat(folder.get(), &status) != 0) return folderFailure("looking at " + path);
  if (status.st_uid != ::geteuid())
    return std::unexpected(
        Error{ErrorCode::kDenied, 0, fmt::format("{} belongs to user {}", path, status.st_uid)});
  return folder;
}

}  // namespace

std::string pathOfConnection(std::string_view root, std::string_view name) {
  return pathIn(kConnectionsFolder, root, name);
}

std::string pathOfMachService(std::string_view root, std::string_view name) {
  return pathIn(kMachFolder, root, name);
}

Result<void> makeConnectionsFolder(const PlatformConfiguration& configuration) {
  std::optional<gid_t> group;
  if (configuration.group) {
    const auto number = groupNumber(*configuration.group);
    if (!number) return std::unexpected(number.error());
    group = *number;
  }
  const std::string path = pathBelowRoot(configuration.root, kConnectionsFolder);
  const auto folder = makeAndOpen(path);
  if (!folder) return std::unexpected(folder.error());
  if (group && ::fchown(folder->get(), static_cast<uid_t>(-1), *group) != 0)
    return folderFailure(fmt::format("giving {} to the group \"{}\"", path, *configuration.group));
  if (::fchmod(folder->get(), kConnectionsFolderMode) != 0)
    return folderFailure("setting the mode of " + path);
  return {};
}

}  // namespace platform
