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

// Decides about connections to a listener.
class NSXPCListenerDelegate {
 public:
  virtual ~NSXPCListenerDelegate() = default;

  // listener:shouldAcceptNewConnection: - runs on the listener's queue and, so that the connection
  // can't end meanwhile, on the connection's. To accept, it sets the connection up, resumes it and
  // returns true; otherwise the connection is invalidated. Who has gone already is not shown.
  virtual bool listener(NSXPCListener& listener,
                        const std::shared_ptr<NSXPCConnection>& shouldAcceptNewConnection) = 0;
};

// Waits for connections, under the name of a Mach service or without one. Each listener has threads
// of its own for its connections, so that long work of one holds up no other.
//
// Made suspended. Any thread. Whoever made it keeps it; its end is as invalidate(). It ends before
// its XPC.
class NSXPCListener final : public std::enable_shared_from_this<NSXPCListener> {
 public:
  class Maker {
    friend class XPC;
    Maker() = default;
  };
  // Without a name where `machService` is empty.
  NSXPCListener(Maker, XPC& xpc, SerialQueues& queues, std::string machService);
  NSXPCListener(const NSXPCListener&) = delete;
  NSXPCListener& operator=(const NSXPCListener&) = delete;
  ~NSXPCListener();

  // Not retained: connections that come when it has ended are turned away. Before resume().
  void setDelegate(std::weak_ptr<NSXPCListenerDelegate> delegate) {
    delegate_ = std::move(delegate);
  }

  // The right to connect to a listener without a name; null for one that has a name, and, logged,
  // where the system has no room for one. Blocks for a turn of the XPC's loop at most.
  std::shared_ptr<const NSXPCListenerEndpoint> endpoint();

  // Begins to hand connections to the delegate; the name is taken the first time. One that can't be
  // had is logged, and nobody comes then. Blocks like endpoint(), and for a second more at most
  // where another process is replacing a leftover of the name. Each suspend() needs another
  // resume(); who connects meanwhile waits.
  void resume();
  void suspend();

  // Gives the name away; its connections stay.
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
  // Shared with the XPC, which keeps them all.
  std::vector<std::shared_ptr<NSXPCConnection>> held_;  // while suspended

  // The loop's.
  bool hasListened_ = false;
  std::unique_ptr<PeerListener> listener_;
  std::shared_ptr<const NSXPCListenerEndpoint> endpoint_;  // shared with its holders
};

}  // namespace platform
