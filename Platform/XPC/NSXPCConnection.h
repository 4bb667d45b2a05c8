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
// Reasons why a message has no reply; codes of that domain.
inline constexpr std::int64_t NSXPCConnectionInterrupted = 4097;  // the other side ended
// There is no connection, or none any more.
inline constexpr std::int64_t NSXPCConnectionInvalid = 4099;
inline constexpr std::int64_t NSXPCConnectionReplyInvalid = 4101;  // refused, or no proper reply

// Answers a message with the reply's values, each of which may be nil. Any thread may call it, at
// most once. If it is dropped without a call, nothing is sent and the caller's handler never runs.
// It must be dropped before the XPC that made it.
using XPCReply = std::move_only_function<void(Array values)>;

// An object to which other programs send messages by their selectors.
class NSXPCExportedObject {
 public:
  virtual ~NSXPCExportedObject() = default;

  // `selector` belongs to the connection's exported interface. There is an argument for each of its
  // colons, except that the last one of a two-way method is `reply`. The method must check the
  // types of the values. Runs on the connection's queue: messages of one connection one after the
  // other, those of several connections concurrently. `reply` is empty for a one-way message.
  virtual void receiveMessage(std::string_view selector, const Array& arguments,
                              XPCReply reply) = 0;
};

// A connection to another program's exported object, and from it to ours. Each connection has a
// queue of its own, on which all its callbacks run. It is created suspended: set it up, then resume
// it.
//
// Any thread may use it once it has been resumed. Its maker keeps a client's connection; dropping
// it invalidates it without a callback. An accepted connection lives until it ends. It must be
// destroyed before its XPC.
class NSXPCConnection final : public std::enable_shared_from_this<NSXPCConnection> {
 public:
  // The limits of the peer's messages that wait to be served, in number and in bytes: one largest
  // message and others behind it. PeerAccounts limits all connections of one user together.
  static constexpr std::size_t kMaxWaitingMessages = kMaxPeerCallsAwaitingReply;
  static constexpr std::size_t kMaxWaitingBytes = kMaxPeerMemoryFileBytes + kMaxPeerMessageBytes;

  using Handler = std::function<void()>;
  // Gets as many values as the other side sent; null markers become nil.
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

  // Set these before the first resume(). The interfaces outlive the connection, or the invalidation
  // handler owns them. A message outside of the exported interface is refused. The handlers are
  // destroyed when the connection becomes invalid; it uses no interface afterwards.
  void setExportedInterface(const Protocol* interface) { exportedInterface_ = interface; }
  // Shared with the connection for as long as that lives.
  void setExportedObject(std::shared_ptr<NSXPCExportedObject> object) {
    exportedObject_ = std::move(object);
  }
  void setRemoteObjectInterface(const Protocol* interface) { remoteInterface_ = interface; }
  // The connection has ended for good, from either side, or could not be made. Called once.
  void setInvalidationHandler(Handler handler) { invalidationHandler_ = std::move(handler); }
  // The process of the Mach service has ended. The next message connects again.
  void setInterruptionHandler(Handler handler) { interruptionHandler_ = std::move(handler); }

  // For an object that answers at once and never blocks: its messages then need not go through
  // other threads. They are still served on the queue and in order. While the queue is idle they
  // run on the XPC's own thread, which carries all connections and never waits for a queue. Call it
  // before the first resume().
  void setServesAtOnce() { servesAtOnce_ = true; }

  // Starts to deliver incoming messages and to send. Each suspend() needs another resume();
  // messages that arrive meanwhile wait, within the limits above.
  void resume();
  void suspend();

  // Ends the connection. Messages without a reply fail, messages that have not been served yet are
  // dropped, and then the invalidation handler runs. Later calls do nothing.
  void invalidate();

  // The connection whose message this thread serves, in receiveMessage() and in its blocks of
  // continueServing(); null elsewhere.
  static NSXPCConnection* currentConnection();
  // Whether the connection has ended for good, from either side or with its XPC. While a message is
  // served, it tells whether the caller still waits for the answer.
  bool isInvalid() const;
  // For long work on the current connection: runs `block` as a block of its own on the queue. The
  // listener's other connections have their turns in between, after as many blocks as one queue may
  // run in a row. Meanwhile no other message of this connection is served; they wait, within the
  // limits above. The block also runs if the connection has ended, whose invalidation handler may
  // have run by then: work without an end must check isInvalid(), or its XPC never ends. Call it at
  // most once per message or block.
  void continueServing(SerialQueue::Block block);

  // Sends a message of the remote object's interface. There is an argument for each of its colons,
  // except that the last one of a two-way method stands for the reply. Exactly one of the handlers
  // runs, once, on the queue; if the other side never replies, none runs before the connection
  // ends. There is no time-out.
  //
  // Fails with NSXPCConnectionReplyInvalid also if an argument can't be sent, and beyond 128
  // messages that await their reply. A one-way message has no reply; its error handler runs if it
  // was not sent.
  void sendMessage(std::string_view selector, Array arguments, ReplyHandler reply,
                   ErrorHandler error);

  // The process and effective user of the other side, as the kernel recorded them when it
  // connected; 0 and the highest user id while there is no other side.
  ProcessId processIdentifier() const { return processIdentifier_; }
  std::uint32_t effectiveUserIdentifier() const { return effectiveUserIdentifier_; }

  // Whether the log may have another line about what the other side asks. If not, it is counted;
  // see UserLines.h. mayLogRequest() asks for the caller whose message this thread serves, and is
  // true if it serves none.
  bool mayLog() const;
  static bool mayLogRequest() {
    const NSXPCConnection* const current = currentConnection();
    return current == nullptr || current->mayLog();
  }

  // The endpoint to which this connection was made, null for other connections.
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

  // The following run on the loop.
  void begin();
  void listenToPeer();
  void arrived(PeerMessage message);
  bool isOfItsProcess(PeerMessage& message);
  void transmit(std::shared_ptr<Outgoing> message);
  void replied(std::uint64_t number, const MessageResult& result);
  bool connect();
  void died();
  void becomeInvalid(std::int64_t whyMessagesFail);
  void failOutstanding(std::int64_t code, const std::string& why);
  void fail(const std::shared_ptr<Outgoing>& message, std::int64_t code, const std::string& why);
  void dropPeer();

  // The following run on the queue.
  void serveWaiting();
  void serve(PeerMessage message);
  XPCReply makeReply(std::unique_ptr<PeerReply> reply);

  void deliver(SerialQueue::Block block);
  void deliverMessage(SerialQueue::Block block);

  XPC& xpc_;
  RunLoop& loop_;  // The XPC's; it outlives the XPC and all that the loop still holds.
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

  // Used only on the queue.
  std::deque<SerialQueue::Block> unserved_;  // messages, in order
  bool isContinued_ = false;

  // Used only on the loop.
  std::unique_ptr<PeerConnection> peer_;
  bool begun_ = false;  // a client that has been resumed
  bool finished_ = false;
  std::vector<std::shared_ptr<Outgoing>> early_;  // sent before the first resume()
  std::uint64_t lastMessage_ = 0;
  // Each is shared with its completion.
  std::map<std::uint64_t, std::shared_ptr<Outgoing>> outstanding_;
};

}  // namespace platform
