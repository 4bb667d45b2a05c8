#pragma once

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <thread>
#include <vector>

#include "Platform/Logging/RefusalLog.h"
#include "Platform/Logging/SystemLog.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/RunLoops/SerialQueue.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Platform/XPC/WaitingMessages.h"

namespace platform {

// Makes listeners and connections that call objects of other programs, off the main thread: their
// transport lives on a loop of its own, requests and replies are served on queues, whose blocks run
// on threads of theirs or, see NSXPCConnection::setServesAtOnce(), on the loop's. Nobody shows a
// token here and nobody is asked for one; who may do what is the objects' business.
//
// Outlives everything that it makes. Any thread may use it.
class XPC {
 public:
  // How long connecting may take. Meanwhile nothing else of this XPC is sent or read.
  static constexpr Duration kConnectTimeout = std::chrono::seconds(5);

  // What it stands on; all of it outlives this.
  struct Environment {
    RunLoop& loop;
    PeerTransport& transport;
    SystemLog& log;
    // Does something on the loop's thread and returns when it is done.
    std::function<void(const std::function<void()>&)> performOnLoop;
    // Makes queues with threads of their own, which end with them.
    std::function<std::unique_ptr<SerialQueues>()> makeQueues;
    // Which file stands for a Mach service.
    std::function<std::string(std::string_view machService)> path;
    // Of each listener; see PeerListenerOptions.
    std::size_t connectionsPerUser = kMaxPeerConnectionsPerUser;
  };
  explicit XPC(Environment environment);
  XPC(const XPC&) = delete;
  XPC& operator=(const XPC&) = delete;
  // Every connection counts as ended, so that what takes long ends soon; what has not been served
  // yet is not. Then waits for what is being served. Not on the loop's thread, which may have
  // stopped by then.
  ~XPC();

  // initWithMachServiceName: of the listener; anonymousListener.
  std::shared_ptr<NSXPCListener> makeListener(std::string machService);
  std::shared_ptr<NSXPCListener> makeAnonymousListener();

  // initWithMachServiceName:options: and initWithListenerEndpoint: of the connection. Nobody is
  // connected to before it is resumed.
  std::shared_ptr<NSXPCConnection> makeConnection(std::string machService);
  std::shared_ptr<NSXPCConnection> makeConnection(
      std::shared_ptr<const NSXPCListenerEndpoint> endpoint);

 private:
  friend class NSXPCConnection;
  friend class NSXPCListener;

  SerialQueues& addQueues();
  // Whether this is the loop's thread, as far as noteLoopThread() has told.
  bool isOnLoop() const { return std::this_thread::get_id() == loopThread_; }
  void noteLoopThread() { loopThread_ = std::this_thread::get_id(); }
  // What the other side or the system did, so many lines a minute at most. On the loop.
  void logFailure(std::string_view line) { failures_.write(line); }

  const Environment environment_;
  RefusalLog failures_;
  std::atomic<std::thread::id> loopThread_;
  std::atomic<bool> isEnding_ = false;
  // Shared with the messages that wait.
  const std::shared_ptr<WaitingMessages> waiting_ = std::make_shared<WaitingMessages>();
  // The loop's: accepted connections live until they end.
  std::set<std::shared_ptr<NSXPCConnection>> accepted_;

  std::mutex mutex_;
  // Kept to the end: a listener may end on a thread of its own queues.
  std::vector<std::unique_ptr<SerialQueues>> queues_;
  SerialQueues& clientQueues_;
};

}  // namespace platform
