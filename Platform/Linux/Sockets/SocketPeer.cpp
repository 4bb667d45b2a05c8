#include "Platform/Linux/Sockets/SocketPeer.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <charconv>
#include <string_view>
#include <tuple>
#include <utility>
#include <vector>

#include <fcntl.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

#ifndef SO_PASSRIGHTS  // Newer than this C library.
#define SO_PASSRIGHTS 83
#endif

namespace platform {

namespace {

// Enough room for the groups of most users; the kernel says how much it needs.
constexpr std::size_t kUsualGroups = 32;

// More than the kernel writes before the users.
constexpr std::size_t kStatusBytes = 1024;

}  // namespace

Result<PeerCredentials> peerOfSocket(int socket, std::string what) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return std::unexpected(systemError(std::move(what)));
  }
  return PeerCredentials{peer.pid, peer.uid, peer.gid};
}

bool peerWasInGroup(int socket, const PeerCredentials& peer, std::uint32_t group) {
  if (peer.group == group) return true;
  std::vector<gid_t> groups(kUsualGroups);
  socklen_t size = 0;
  const auto ask = [&] {
    size = static_cast<socklen_t>(groups.size() * sizeof(gid_t));
    return ::getsockopt(socket, SOL_SOCKET, SO_PEERGROUPS, groups.data(), &size) == 0;
  };
  bool known = ask();
  if (!known && errno == ERANGE) {
    groups.resize(size / sizeof(gid_t));
    known = ask();
  }
  if (!known) return false;
  groups.resize(size / sizeof(gid_t));
  return std::ranges::find(groups, group) != groups.end();
}

void permitDescriptors(int socket, bool arePermitted) {
  const int value = arePermitted ? 1 : 0;
  std::ignore = ::setsockopt(socket, SOL_SOCKET, SO_PASSRIGHTS, &value, sizeof value);
}

Result<ProcessStatus> statusOfProcess(ProcessId process) {
  const std::string path = "/proc/" + std::to_string(process) + "/status";
  const auto failure = [&] {
    const bool isGone = errno == ENOENT || errno == ESRCH;
    return std::unexpected(systemError(path, isGone ? ErrorCode::kNotFound : errorCodeOf(errno)));
  };
  const UniqueFd file(::open(path.c_str(), O_RDONLY | O_CLOEXEC));
  if (!file) return failure();
  std::array<char, kStatusBytes> bytes{};
  const ssize_t size =
      retryOnInterrupt([&] { return ::read(file.get(), bytes.data(), bytes.size()); });
  if (size < 0) return failure();
  const std::string_view text(bytes.data(), static_cast<std::size_t>(size));
  ProcessStatus status;
  status.hasEnded = text.contains("\nState:\tZ") || text.contains("\nState:\tX");
  // "Uid:", then the real user, the effective one and two others.
  const std::size_t line = text.find("\nUid:\t");
  const std::size_t tab = line == text.npos ? line : text.find('\t', line + sizeof("\nUid:\t") - 1);
  const Error unreadable{ErrorCode::kSystem, 0, path + " can't be read"};
  if (tab == text.npos) return std::unexpected(unreadable);
  const auto read =
      std::from_chars(text.data() + tab + 1, text.data() + text.size(), status.effectiveUser);
  if (read.ec != std::errc()) return std::unexpected(unreadable);
  return status;
}

}  // namespace platform
