#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
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
#include "Platform/Logging/UserLines.h"
#include "Platform/Peers/ListenerPlace.h"
#include "Platform/Peers/PeerAccounts.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/RunLoops/SerialQueue.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/NSXPCListener.h"

namespace platform {

// Makes listeners and connections between programs, off the main thread. Their transport has a loop
// of its own. Requests and replies are served on queues, whose blocks run on threads of their own
// or on the loop's thread (see NSXPCConnection::setServesAtOnce()). There are no tokens here; the
// exported objects decide about permissions.
//
// It outlives all objects that it makes. Any thread may use it.
class XPC {
 public:
  // The limit of connecting. Meanwhile this XPC neither sends nor reads anything else.
  static constexpr Duration kConnectTimeout = std::chrono::seconds(5);

  // The objects that it uses; all of them outlive this.
  struct Environment {
    RunLoop& loop;
    PeerTransport& transport;
    SystemLog& log;
    // Runs an action on the loop's thread and returns when it is done.
    std::function<void(const std::function<void()>&)> performOnLoop;
    // Makes queues with threads of their own, which end with the queues.
    std::function<std::unique_ptr<SerialQueues>()> makeQueues;
    // Where the listener of a Mach service is.
    std::function<ListenerPlace(std::string_view machService)> place;
    // The users who may connect to a listener without a name, if they have its endpoint.
    PeerAudience endpointClients = {};
    // The process's, shared with the transport; messages that wait to be served take from them.
    std::shared_ptr<PeerAccounts> accounts;
    // The limits for lines about peers, which a program with other servers shares with them.
    // Without them it has its own.
    std::shared_ptr<UserLines> lines = {};
  };
  explicit XPC(Environment environment);
  XPC(const XPC&) = delete;
  XPC& operator=(const XPC&) = delete;
  // Marks every connection as ended, so that long work ends soon, and drops messages that have not
  // been served. Then blocks until running requests have been served. Do not destroy it on the
  // loop's thread; the loop may have stopped by then.
  ~XPC();

  // Whether the log may have another line about what the user asks, by XPC or otherwise. If not, it
  // is counted; see UserLines.h.
  bool mayLog(std::uint32_t user) { return userLines_->mayWrite(user); }

  // initWithMachServiceName: of the listener, and anonymousListener.
  std::shared_ptr<NSXPCListener> makeListener(std::string machService);
  std::shared_ptr<NSXPCListener> makeAnonymousListener();

  // initWithMachServiceName:options: and initWithListenerEndpoint: of the connection. It connects
  // only when it is resumed.
  std::shared_ptr<NSXPCConnection> makeConnection(std::string machService);
  std::shared_ptr<NSXPCConnection> makeConnection(
      std::shared_ptr<const NSXPCListenerEndpoint> endpoint);

 private:
  friend class NSXPCConnection;
  friend class NSXPCListener;

  SerialQueues& addQueues();
  // Whether this is the loop's thread, which noteLoopThread() has stored.
  bool isOnLoop() const { return std::this_thread::get_id() == loopThread_; }
  void noteLoopThread() { loopThread_ = std::this_thread::get_id(); }
  // Log errors of this program, and of a user's peers, with a limit of lines per minute.
  void logFailure(std::string_view line) { failures_.write(line); }
  void logRefusal(std::uint32_t user, std::string_view line) { refusals_.write(line, user); }

  const Environment environment_;
  const std::shared_ptr<UserLines> userLines_;
  RefusalLog failures_;
  RefusalLog refusals_;
  std::atomic<std::thread::id> loopThread_;
  std::atomic<bool> isEnding_ = false;
  // Used only on the loop. Accepted connections live until they end.
  std::set<std::shared_ptr<NSXPCConnection>> accepted_;

  std::mutex mutex_;
  // Never removed, because a listener may end on a thread of its own queues.
  std::vector<std::unique_ptr<SerialQueues>> queues_;
  SerialQueues& clientQueues_;
};

}  // namespace platform
