#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "Platform/Linux/DBus/DBusHandles.h"
#include "Platform/Linux/DBus/DBusSources.h"
#include "Platform/Linux/Peers/DBusPeerLink.h"
#include "Platform/Linux/Peers/SharedByListeners.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Linux/Sockets/SocketName.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Peers/PeerPlaces.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/Values/Error.h"

namespace platform {

// A libdbus server that hands a connection on once its peer has authenticated.
class DBusPeerListener final : public PeerListener {
 public:
  using NewLink = std::function<void(std::shared_ptr<DBusPeerLink>)>;

  // `name` is set if the socket has a name that we must remove.
  static Result<std::unique_ptr<DBusPeerListener>> create(
      AsioRunLoop& loop, SharedByListeners shared, UniqueDBusServer server,
      std::optional<SocketName> name, const PeerListenerOptions& options, NewLink onLink);

  DBusPeerListener(const DBusPeerListener&) = delete;
  DBusPeerListener& operator=(const DBusPeerListener&) = delete;
  ~DBusPeerListener() override;

 private:
  DBusPeerListener(AsioRunLoop& loop, SharedByListeners shared, UniqueDBusServer server,
                   std::optional<SocketName> name, const PeerListenerOptions& options,
                   NewLink onLink);

  void accepted(DBusConnection* connection);
  void handOn(DBusPeerLink* link);
  void afterAccepting();
  void rejectOne();

  AsioRunLoop& loop_;
  const SharedByListeners shared_;
  const PeerListenerOptions options_;
  // Shared with its own running call, which may destroy this.
  std::shared_ptr<const NewLink> onLink_;
  std::optional<SocketName> name_;
  UniqueDBusServer server_;
  std::unique_ptr<DBusSources> sources_;  // Destroyed before the server.
  std::unique_ptr<RunLoopHandle> backingOff_;
  UniqueFd reserve_;  // closed for a moment if there is no other descriptor
  bool acceptedOne_ = false;

  // Shared with the connections that still have places.
  std::shared_ptr<PeerPlaces> places_;
  std::map<DBusPeerLink*, std::shared_ptr<DBusPeerLink>> unknown_;  // not yet handed on
};

}  // namespace platform
