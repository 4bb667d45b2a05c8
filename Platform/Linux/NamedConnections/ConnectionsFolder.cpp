#include "Platform/Linux/NamedConnections/ConnectionsFolder.h"

#include <cerrno>
#include <climits>
#include <vector>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Digests/Digest.h"
#include "Platform/Files/FileNames.h"
#include "Platform/Linux/Files/ParentFolders.h"
#include "Platform/Linux/NamedConnections/AccountNumbers.h"
#include "Platform/Linux/Sockets/SocketEndpoint.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace platform {
namespace {

constexpr std::string_view kConnectionsFolder = "run/vantor/connections";
constexpr std::string_view kMachFolder = "run/vantor/mach";
constexpr std::string_view kDigestMark = "sha256-";
constexpr std::string_view kEndpointFolder = "run/vantor/endpoints";
constexpr std::string_view kUsersFolder = "run/vantor/users";
// Only the owner may write, and the sockets themselves say who may connect.
constexpr mode_t kNamesFolderMode = 0755;
// Others may make folders of their own in it, but not see or remove those of others.
constexpr mode_t kEndpointFolderMode = 01700;

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

// Opens the folder, so that its owner and mode are set on what was checked. Whatever mode it has is
// replaced at each start.
Result<UniqueFd> makeAndOpen(const std::string& path, uid_t owner) {
  if (auto made = makeParentFolders(path); !made) {
    made.error().code = codeOfFolderError(made.error().osError);
    return std::unexpected(std::move(made.error()));
  }
  if (::mkdir(path.c_str(), 0755) != 0 && errno != EEXIST) return folderFailure("making " + path);
  UniqueFd folder(::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC));
  if (!folder) return folderFailure("opening " + path);
  struct stat status{};
  if (::fstat(folder.get(), &status) != 0) return folderFailure("looking at " + path);
  if (status.st_uid != ::geteuid() && status.st_uid != owner)
    return std::unexpected(
        Error{ErrorCode::kDenied, 0, fmt::format("{} belongs to user {}", path, status.st_uid)});
  return folder;
}

std::string usersFolder(std::string_view user) { return fmt::format("{}/{}", kUsersFolder, user); }

// The folder of one user's names, which nobody else may write.
Result<void> makeUsersFolder(const std::string& root, const std::string& user) {
  const auto number = userNumber(user);
  if (!number) return std::unexpected(number.error());
  const std::string path = pathBelowRoot(root, usersFolder(user));
  const auto folder = makeAndOpen(path, *number);
  if (!folder) return std::unexpected(folder.error());
  if (::fchmod(folder->get(), kNamesFolderMode) != 0)
    return folderFailure("setting the mode of " + path);
  if (::fchown(folder->get(), *number, static_cast<gid_t>(-1)) != 0)
    return folderFailure(fmt::format("giving {} to the user \"{}\"", path, user));
  return {};
}

}  // namespace

std::string pathOfConnection(std::string_view root, std::string_view name) {
  return pathIn(kConnectionsFolder, root, name);
}

std::string pathOfMachService(std::string_view root, std::string_view name) {
  return pathIn(kMachFolder, root, name);
}

std::string pathOfUsersConnection(std::string_view root, std::string_view user,
                                  std::string_view name) {
  return pathIn(usersFolder(user), root, name);
}

Result<void> makeConnectionsFolder(const PlatformConfiguration& configuration) {
  if (configuration.group) {
    const auto number = groupNumber(*configuration.group);
    if (!number) return std::unexpected(number.error());
  }
  const std::string path = pathBelowRoot(configuration.root, kConnectionsFolder);
  const auto folder = makeAndOpen(path, ::geteuid());
  if (!folder) return std::unexpected(folder.error());
  if (::fchmod(folder->get(), kNamesFolderMode) != 0)
    return folderFailure("setting the mode of " + path);
  for (const auto& [name, user] : configuration.nameOwners) {
    if (auto made = makeUsersFolder(configuration.root, user); !made) return made;
  }
  return {};
}

std::string endpointFolder(std::string_view root) { return pathBelowRoot(root, kEndpointFolder); }

Result<void> makeEndpointFolder(const std::string& root) {
  const std::string path = endpointFolder(root);
  if (auto made = makeParentFolders(path); !made) return made;
  if (::mkdir(path.c_str(), 0700) != 0 && errno != EEXIST) return folderFailure("making " + path);
  return {};
}

Result<void> shareEndpointFolder(const std::string& root, const PeerAudience& makers) {
  const std::string path = endpointFolder(root);
  const auto folder = makeAndOpen(path, ::geteuid());
  if (!folder) return std::unexpected(folder.error());
  const bool forGroup = makers.group && !makers.everybody;
  if (forGroup && ::fchown(folder->get(), static_cast<uid_t>(-1), *makers.group) != 0)
    return folderFailure("giving " + path + " to its group");
  const mode_t others = makers.everybody ? 0033 : forGroup ? 0030 : 0;
  if (::fchmod(folder->get(), kEndpointFolderMode | others) != 0)
    return folderFailure("setting the mode of " + path);
  SocketEndpoint::removeLeftovers(path);
  return {};
}

}  // namespace platform
