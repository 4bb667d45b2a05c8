#pragma once

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/SerialQueue.h"
#include "Platform/XPC/NSXPCConnection.h"

namespace platform {

class NSXPCListener;
class XPC;

// Decides whether a listener accepts a connection.
class NSXPCListenerDelegate {
 public:
  virtual ~NSXPCListenerDelegate() = default;

  // listener:shouldAcceptNewConnection: - runs on the listener's queue and on the connection's, so
  // that the connection can't end meanwhile. To accept it, the delegate sets the connection up,
  // resumes it and returns true; otherwise it is invalidated. A connection that has ended already
  // is not passed to the delegate.
  virtual bool listener(NSXPCListener& listener,
                        const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) = 0;
};

// Listens for connections, under the name of a Mach service or without a name. Each listener has
// threads of its own for its connections, so that its long work blocks no other listener.
//
// It is created suspended. Any thread may use it. Its maker keeps it; its destructor invalidates
// it. It must be destroyed before its XPC.
class NSXPCListener final : public std::enable_shared_from_this<NSXPCListener> {
 public:
  class Maker {
    friend class XPC;
    Maker() = default;
  };
  // Has no name if `machService` is empty.
  NSXPCListener(Maker, XPC& xpc, SerialQueues& queues, std::string machService);
  NSXPCListener(const NSXPCListener&) = delete;
  NSXPCListener& operator=(const NSXPCListener&) = delete;
  ~NSXPCListener();

  // Not retained. After the delegate has been destroyed, connections are rejected. Call it before
  // resume().
  void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate) {
    delegate_ = std::move(delegate);
  }

  // The right to connect to a listener without a name. Null for one with a name, and if the system
  // has no room for one, which is logged. Blocks for at most a turn of the XPC's loop.
  std::shared_ptr<const NSXPCListenerEndpoint> endpoint();

  // Starts to pass connections to the delegate. The first call takes the name; a failure is logged,
  // and then nobody can connect. Blocks like endpoint(), and for at most a second more if another
  // process is replacing a leftover socket. Each suspend() needs another resume(); new connections
  // wait meanwhile.
  void resume();
  void suspend();

  // Releases the name; its connections stay.
  void invalidate();

 private:
  void listenOnce();
  void arrived(std::unique_ptr<PeerConnection> peer);
  void offer(const std::shared_ptr<NSXPCConnection>& connection);

  XPC& xpc_;
  SerialQueues& queues_;
  const std::shared_ptr<SerialQueue> queue_;  // shared with its pending blocks
  const std::string machService_;
  std::weak_ptr<NSXPCListenerDelegate> delegate_;

  std::mutex mutex_;
  int suspensions_ = 1;
  // Shared with the XPC, which keeps all connections.
  std::vector<std::shared_ptr<NSXPCConnection>> held_;  // while suspended

  // Used only on the loop.
  bool hasListened_ = false;
  std::unique_ptr<PeerListener> listener_;
  std::shared_ptr<const NSXPCListenerEndpoint> endpoint_;  // shared with its holders
};

}  // namespace platform
