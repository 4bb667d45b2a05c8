// The process at the other end of a connection.

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <optional>

#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

#include "Platform/Linux/Peers/DBusPeerLink.h"
#include "Platform/Linux/Sockets/SocketPeer.h"
#include "Platform/Linux/SystemCalls/Shortage.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

#ifndef SO_PEERPIDFD  // Newer than this C library.
#define SO_PEERPIDFD 77
#endif

namespace platform {

// The order matters: if the process lives afterwards, the user was that of no other process with
// its number.
PeerState DBusPeerLink::peerState() const {
  if (peer_.process == 0) return isConnected() ? PeerState::kUnchanged : PeerState::kEnded;
  const auto status = statusOfProcess(peer_.process);
  const bool isGone = !status && status.error().code == ErrorCode::kNotFound;
  if (!status && !isGone) return PeerState::kUnknown;
  const bool hasItsUser = !isGone && status->effectiveUser == peer_.user;
  // libdbus has closed the socket.
  if (!isConnected()) return isGone || hasItsUser ? PeerState::kEnded : PeerState::kOtherUser;
  if (!isGone) {
    const auto lives = processLives(status->hasEnded);
    if (!lives) return PeerState::kUnknown;
    if (*lives) return hasItsUser ? PeerState::kUnchanged : PeerState::kOtherUser;
  }
  // A process closes its descriptors before it has ended.
  pollfd otherEnd{socket_, POLLRDHUP, 0};
  return ::poll(&otherEnd, 1, 0) == 0 ? PeerState::kPassedOn : PeerState::kEnded;
}

bool DBusPeerLink::isIn(const PeerAudience& audience) const {
  return audience.admitsUser(peer_.user, ::geteuid()) ||
         (audience.group && peerWasInGroup(socket_, peer_, *audience.group));
}

// Closing another user's descriptor can block this process, so none is taken without need.
bool DBusPeerLink::mayPassDescriptors(std::uint32_t from, std::uint32_t to) const {
  return contents_ == PeerMessageContents::kValuesAndEndpoints || from == 0 || from == to;
}

// Nothing if there is no descriptor to ask by. `hasEnded` is the state in /proc, for a kernel
// without SO_PEERPIDFD: a signal reaches also a process that has ended and is not reaped.
std::optional<bool> DBusPeerLink::processLives(bool hasEnded) const {
  int descriptor = -1;
  socklen_t length = sizeof(descriptor);
  if (::getsockopt(socket_, SOL_SOCKET, SO_PEERPIDFD, &descriptor, &length) == 0) {
    const UniqueFd process(descriptor);
    pollfd entry{process.get(), POLLIN, 0};
    return ::poll(&entry, 1, 0) == 0;
  }
  if (isShortage(errno)) return std::nullopt;
  return errno == ENOPROTOOPT && !hasEnded && (::kill(peer_.process, 0) == 0 || errno == EPERM);
}

}  // namespace platform
