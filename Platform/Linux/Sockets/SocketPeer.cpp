#include "Platform/Linux/Sockets/SocketPeer.h"

#include <utility>

#include <sys/socket.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

Result<PeerCredentials> peerOfSocket(int socket, std::string what) {
  ucred peer{};
  socklen_t size = sizeof peer;
  if (::getsockopt(socket, SOL_SOCKET, SO_PEERCRED, &peer, &size) != 0) {
    return std::unexpected(systemError(std::move(what)));
  }
  return PeerCredentials{peer.pid, peer.uid, peer.gid};
}

}  // namespace platform
