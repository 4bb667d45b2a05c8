#pragma once

#include <map>
#include <memory>
#include <string>

#include "Platform/Linux/Peers/PassedSocket.h"
#include "Platform/Linux/Peers/SharedByListeners.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Peers/PeerAccounts.h"
#include "Platform/Peers/PeerTransport.h"

namespace platform {

// Peer-to-peer D-Bus connections over Unix sockets; DBusMessages.h describes the messages.
class DBusPeerTransport final : public PeerTransport {
 public:
  // `endpointFolder` is where the sockets of anonymous listeners are bound; without it there are
  // none. It has accounts of its own, for a program with one transport.
  explicit DBusPeerTransport(AsioRunLoop& loop, std::string endpointFolder = {});
  // All transports of a process share the accounts.
  DBusPeerTransport(AsioRunLoop& loop, std::shared_ptr<PeerAccounts> accounts,
                    std::string endpointFolder = {});

  // The accounts of a process that has this user and may open as many descriptors as now.
  static std::shared_ptr<PeerAccounts> makeAccounts();

  // From now on new listeners refuse a connection that would take one of the last descriptors
  // (isOfDescriptorReserve()).
  void leaveDescriptorReserve() { shared_.leavesReserve = true; }

  Result<std::unique_ptr<PeerListener>> listen(const std::string& path,
                                               const PeerListenerOptions& options,
                                               NewConnection onConnection) override;
  Result<Anonymous> listenAnonymously(const PeerListenerOptions& options,
                                      NewConnection onConnection) override;
  // The descriptor must be 3, the first of LISTEN_FDS, because libdbus looks only there. The call
  // sets LISTEN_FDS and LISTEN_PID for a moment, so no other thread may read the environment.
  Result<std::unique_ptr<PeerListener>> listenOn(Descriptor passed,
                                                 const PeerListenerOptions& options,
                                                 NewConnection onConnection) override;
  std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure> connect(
      const std::string& path, const PeerConnectOptions& options) override;
  std::expected<std::unique_ptr<PeerConnection>, PeerConnectFailure> connectToEndpoint(
      const NSXPCListenerEndpoint& endpoint, const PeerConnectOptions& options) override;

  // Adds a listening socket with which this process was started. The next listen() on `path` uses
  // it. Call it before the loop runs on another thread.
  void adopt(std::string path, PassedServer passed);

 private:
  AsioRunLoop& loop_;
  SharedByListeners shared_;
  const std::string endpointFolder_;
  std::map<std::string, PassedServer> passed_;  // by path
};

}  // namespace platform
