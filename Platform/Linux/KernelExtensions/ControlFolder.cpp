#include "Platform/Linux/KernelExtensions/ControlFolder.h"

#include <cerrno>

#include <fmt/format.h>
#include <sys/stat.h>
#include <unistd.h>

#include "Platform/Linux/Files/ParentFolders.h"
#include "Platform/Linux/Sockets/SocketPeer.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/SystemFacts/PlatformConfiguration.h"

namespace platform {
namespace {

constexpr std::string_view kControlFolder = "run/vantor/control";
constexpr mode_t kControlFolderMode = 0700;

}  // namespace

std::string controlFolder(std::string_view root) { return pathBelowRoot(root, kControlFolder); }

// The strictest of the folders in run/vantor: only its owner may enter it, and a folder with
// another mode is refused and not changed, because a socket in it may already be another user's.
Result<void> makeControlFolder(const std::string& root) {
  const std::string path = controlFolder(root);
  if (auto made = makeParentFolders(path); !made) return made;
  if (::mkdir(path.c_str(), kControlFolderMode) != 0 && errno != EEXIST) {
    return std::unexpected(systemError("making " + path));
  }
  struct stat status{};
  if (::lstat(path.c_str(), &status) != 0) return std::unexpected(systemError(path));
  if (!S_ISDIR(status.st_mode) || status.st_uid != ::geteuid() || (status.st_mode & 077) != 0) {
    return std::unexpected(Error{
        ErrorCode::kDenied, 0,
        fmt::format("{}: not trusted: expected a folder of uid {} with mode 0700, found uid {}, "
                    "mode {:06o}",
                    path, ::geteuid(), status.st_uid, status.st_mode)});
  }
  return {};
}

Result<void> checkControlUser(uid_t user, uid_t ours) {
  if (user == 0 || user == ours) return {};
  return std::unexpected(Error{ErrorCode::kDenied, EPERM,
                               fmt::format("the other side of the control is uid {}'s", user)});
}

Result<void> checkControlPeer(int socket) {
  const auto peer = peerOfSocket(socket, "asking who is on the control's other side");
  if (!peer) return std::unexpected(peer.error());
  return checkControlUser(peer->user, ::geteuid());
}

}  // namespace platform
