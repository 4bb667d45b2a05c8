#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Messages/Protocol.h"
#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Peers/PeerTransport.h"
#include "Platform/RunLoops/SerialQueue.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

class XPC;

inline constexpr char kNSCocoaErrorDomain[] = "NSCocoaErrorDomain";
// Why a message has no reply; codes of that domain.
inline constexpr std::int64_t NSXPCConnectionInterrupted = 4097;   // the other side ended
inline constexpr std::int64_t NSXPCConnectionInvalid = 4099;       // there is no connection (more)
inline constexpr std::int64_t NSXPCConnectionReplyInvalid = 4101;  // refused, or no proper reply

// Answers a message with the reply's values, each of which may be nil. To be called at most once,
// from any thread; dropped uncalled it sends nothing, and the caller's own handler never runs. Ends
// before the XPC that it came from.
using XPCReply = std::move_only_function<void(Array values)>;

// An object that other programs send messages to by their selectors.
class NSXPCExportedObject {
 public:
  virtual ~NSXPCExportedObject() = default;

  // `selector` belongs to the connection's exported interface, and there is an argument for each of
  // its colons, but that of a two-way method's last is `reply`; what kinds of values they are is
  // for the method to check. Runs on that connection's queue: messages of one connection one after
  // the other, of several at once. `reply` is empty for a message that wants none.
  virtual void receiveMessage(std::string_view selector, const Array& arguments,
                              XPCReply reply) = 0;
};

// A connection to another program's exported object, and of it to ours. Each has a queue of its
// own, on which everything is called back. Made suspended: it is set up, and then resumed.
//
// Any thread may use it once it is resumed. Whoever made a connection keeps it, and dropping it
// invalidates it without a word; an accepted one lives until it ends. It ends before its XPC.
class NSXPCConnection final : public std::enable_shared_from_this<NSXPCConnection> {
 public:
  // Messages of the peer that wait to be served, and what they hold together: one of the largest,
  // and others behind it. All of one user's connections are bound by WaitingMessages.
  static constexpr std::size_t kMaxWaitingMessages = kMaxPeerCallsAwaitingReply;
  static constexpr std::size_t kMaxWaitingBytes = kMaxPeerMemoryFileBytes + kMaxPeerMessageBytes;

  using Handler = std::function<void()>;
  // The reply's values, as many as the other side gave; null markers come as nil.
  using ReplyHandler = std::move_only_function<void(Array values)>;
  using ErrorHandler = std::move_only_function<void(const NSError& error)>;

  // For XPC, which makes connections.
  class Maker {
    friend class XPC;
    friend class NSXPCListener;
    Maker() = default;
  };
  NSXPCConnection(Maker, XPC& xpc, std::shared_ptr<SerialQueue> queue,
                  std::unique_ptr<PeerConnection> accepted);
  NSXPCConnection(Maker, XPC& xpc, std::shared_ptr<SerialQueue> queue, std::string machService);
  NSXPCConnection(Maker, XPC& xpc, std::shared_ptr<SerialQueue> queue,
                  std::shared_ptr<const NSXPCListenerEndpoint> endpoint);
  NSXPCConnection(const NSXPCConnection&) = delete;
  NSXPCConnection& operator=(const NSXPCConnection&) = delete;
  ~NSXPCConnection();

  // To be set before the first resume(). The interfaces outlive the connection; a message outside
  // the exported one is refused. The handlers are let go of when the connection is invalid.
  void setExportedInterface(const Protocol* interface) { exportedInterface_ = interface; }
  // Shared with the connection, as long as that lasts.
  void setExportedObject(std::shared_ptr<NSXPCExportedObject> object) {
    exportedObject_ = std::move(object);
  }
  void setRemoteObjectInterface(const Protocol* interface) { remoteInterface_ = interface; }
  // The connection has ended for good, from either side, or could not be made: called once.
  void setInvalidationHandler(Handler handler) { invalidationHandler_ = std::move(handler); }
  // The other side of a Mach service has ended; the next message connects anew.
  void setInterruptionHandler(Handler handler) { interruptionHandler_ = std::move(handler); }

  // For an object that answers at once and waits for nothing: its messages need not go through
  // other threads. They are served on the queue and in their order as ever; where that is idle, on
  // the XPC's own thread, which carries all of its connections and never waits for the queue.
  // Before the first resume().
  void setServesAtOnce() { servesAtOnce_ = true; }

  // Begins to deliver what comes, and to send. Each suspend() needs another resume(); what comes
  // meanwhile waits, within the limits above.
  void resume();
  void suspend();

  // Ends the connection. Messages without a reply fail, what has not been served yet is not, and
  // then the invalidation handler runs. Later calls do nothing.
  void invalidate();

  // The connection whose message this thread serves, within receiveMessage() and what that
  // continues by continueServing(); null elsewhere.
  static NSXPCConnection* currentConnection();
  // Whether the connection has ended for good, from either side or with its XPC. To ask while a
  // message of it is served is to learn that nobody waits for the answer any more.
  bool isInvalid() const;
  // For what takes long, on the current connection: runs `block` as a block of its own, on the
  // queue. The listener's other connections have their turns in between, not each time but after so
  // many blocks as one queue may run in a row. Meanwhile no other message of this connection is
  // served; they wait, within the limits above. Also of a connection that has ended, whose
  // invalidation handler may have run by then: what goes on without an end asks isInvalid(), or its
  // XPC never ends. Once in each such call.
  void continueServing(SerialQueue::Block block);

  // Sends a message of the remote object's interface, with an argument for each of its colons but a
  // two-way method's last, which stands for the reply. Exactly one of the handlers runs, once, on
  // the queue; where the other side never replies, neither before the connection ends. There is no
  // time-out.
  //
  // Fails with NSXPCConnectionReplyInvalid also for what can't travel, and beyond 128 messages that
  // await their reply. A one-way message has no reply, and an error where it was not sent.
  void sendMessage(std::string_view selector, Array arguments, ReplyHandler reply,
                   ErrorHandler error);

  // The other side's process and effective user, as the kernel knew them when it connected; 0 and
  // the highest user while there is no other side.
  ProcessId processIdentifier() const { return processIdentifier_; }
  std::uint32_t effectiveUserIdentifier() const { return effectiveUserIdentifier_; }

  // What a connection to an endpoint was made with, null for others.
  const std::shared_ptr<const NSXPCListenerEndpoint>& endpoint() const { return endpoint_; }

 private:
  friend class NSXPCListener;
  enum class Role { kAccepted, kMachClient, kEndpointClient };
  struct Outgoing {
    std::string selector;
    Array arguments;
    ReplyHandler reply;
    ErrorHandler error;
  };

  // On the loop.
  void begin();
  void listenToPeer();
  void arrived(PeerMessage message);
  void transmit(std::shared_ptr<Outgoing> message);
  void replied(std::uint64_t number, const MessageResult& result);
  bool connect();
  void died();
  void becomeInvalid(std::int64_t whyMessagesFail);
  void failOutstanding(std::int64_t code, const std::string& why);
  void fail(const std::shared_ptr<Outgoing>& message, std::int64_t code, const std::string& why);
  void dropPeer();

  // On the queue.
  void serveWaiting();
  void serve(PeerMessage message);
  XPCReply makeReply(std::unique_ptr<PeerReply> reply);

  void deliver(SerialQueue::Block block);
  void deliverMessage(SerialQueue::Block block);

  XPC& xpc_;
  RunLoop& loop_;  // The XPC's, which outlives it, and what the loop still holds of connections.
  const std::shared_ptr<SerialQueue> queue_;  // shared with its pending blocks
  const Role role_;
  const std::string machService_;
  const std::shared_ptr<const NSXPCListenerEndpoint> endpoint_;
  const Protocol* exportedInterface_ = nullptr;
  const Protocol* remoteInterface_ = nullptr;
  std::shared_ptr<NSXPCExportedObject> exportedObject_;
  Handler invalidationHandler_;
  Handler interruptionHandler_;
  std::atomic<ProcessId> processIdentifier_ = 0;
  std::atomic<std::uint32_t> effectiveUserIdentifier_ = static_cast<std::uint32_t>(-1);
  std::atomic<bool> invalid_ = false;
  std::atomic<std::size_t> waitingMessages_ = 0;
  std::atomic<std::size_t> waitingBytes_ = 0;

  std::mutex mutex_;
  int suspensions_ = 1;
  bool servesAtOnce_ = false;
  std::deque<SerialQueue::Block> held_;  // while suspended

  // The queue's.
  std::deque<SerialQueue::Block> unserved_;  // messages, in their order
  bool isContinued_ = false;

  // The loop's.
  std::unique_ptr<PeerConnection> peer_;
  bool begun_ = false;  // a client that has been resumed
  bool finished_ = false;
  std::vector<std::shared_ptr<Outgoing>> early_;  // sent before that
  std::uint64_t lastMessage_ = 0;
  // Shared with the completion of each.
  std::map<std::uint64_t, std::shared_ptr<Outgoing>> outstanding_;
};

}  // namespace platform
