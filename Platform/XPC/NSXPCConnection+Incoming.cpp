// The messages of the other side.

#include <tuple>
#include <utility>

#include "Platform/Texts/StringFormat.h"
#include "Platform/XPC/NSXPCConnection.h"
#include "Platform/XPC/WaitingMessages.h"
#include "Platform/XPC/XPC.h"

namespace platform {

namespace {

// The connection whose message this thread serves.
thread_local NSXPCConnection* currentlyServed = nullptr;

class Serving {
 public:
  explicit Serving(NSXPCConnection* connection)
      : before_(std::exchange(currentlyServed, connection)) {}
  Serving(const Serving&) = delete;
  Serving& operator=(const Serving&) = delete;
  ~Serving() { currentlyServed = before_; }

 private:
  NSXPCConnection* const before_;
};

}  // namespace

void NSXPCConnection::listenToPeer() {
  peer_->setHandlers({.message =
                          [weak = weak_from_this()](PeerMessage message) {
                            if (const auto self = weak.lock()) self->arrived(std::move(message));
                          },
                      .death =
                          [weak = weak_from_this()](const Error& /*why*/) {
                            if (const auto self = weak.lock()) self->died();
                          }});
}

// False if the message may be another process's: then it is refused, or its connection ended.
bool NSXPCConnection::isOfItsProcess(PeerMessage& message) {
  if (role_ != Role::kAccepted) return true;
  switch (peer_->peerState()) {
    case PeerState::kUnchanged:
      return true;
    case PeerState::kUnknown:
      xpc_.logRefusal(effectiveUserIdentifier_,
                      stringWithFormat("Refused a message of process %d of user %u: this process "
                                       "is short of descriptors and can't ask whose it is",
                                       processIdentifier_.load(), effectiveUserIdentifier_.load()));
      if (message.reply) {
        std::ignore = message.reply->answer(
            raised(kNSInvalidArgumentException, "The server can't ask who sends it."));
      }
      return false;
    case PeerState::kEnded:             // No error to log.
      if (!message.reply) return true;  // It may be the last one of its process.
      break;
    case PeerState::kPassedOn:
      xpc_.logRefusal(effectiveUserIdentifier_,
                      stringWithFormat("Ended the connection of process %d of user %u, which has "
                                       "passed it on and ended",
                                       processIdentifier_.load(), effectiveUserIdentifier_.load()));
      break;
    case PeerState::kOtherUser:
      xpc_.logRefusal(effectiveUserIdentifier_,
                      stringWithFormat("Ended the connection of process %d of user %u, which has "
                                       "become another user's",
                                       processIdentifier_.load(), effectiveUserIdentifier_.load()));
      break;
  }
  becomeInvalid(NSXPCConnectionInvalid);
  return false;
}

void NSXPCConnection::arrived(PeerMessage message) {
  // A connection that has been given up ends in a later turn.
  if (!peer_ || !isOfItsProcess(message)) return;
  const PeerCost cost = costOfWaiting(message.arguments);
  auto place = xpc_.environment_.accounts->take(effectiveUserIdentifier_, cost);
  if (waitingMessages_ >= kMaxWaitingMessages || waitingBytes_ + cost.bytes > kMaxWaitingBytes ||
      !place) {
    xpc_.logRefusal(effectiveUserIdentifier_,
                    "Process " + std::to_string(processIdentifier_) +
                        " sends faster than it is served; its connection has been closed.");
    return becomeInvalid(NSXPCConnectionInvalid);
  }
  ++waitingMessages_;
  waitingBytes_ += cost.bytes;
  deliverMessage([self = shared_from_this(), message = std::move(message), place = std::move(place),
                  bytes = cost.bytes]() mutable {
    NSXPCConnection& here = *self;
    here.unserved_.push_back(
        [&here, message = std::move(message), place = std::move(place), bytes]() mutable {
          --here.waitingMessages_;
          here.waitingBytes_ -= bytes;
          place.reset();
          here.serve(std::move(message));
        });
    here.serveWaiting();
  });
}

// One message per block, because the queues count blocks for their turns.
void NSXPCConnection::serveWaiting() {
  if (isContinued_ || unserved_.empty()) return;
  SerialQueue::Block serving = std::move(unserved_.front());
  unserved_.pop_front();
  serving();
  if (isContinued_ || unserved_.empty()) return;
  queue_->async([self = shared_from_this()] { self->serveWaiting(); });
}

NSXPCConnection* NSXPCConnection::currentConnection() { return currentlyServed; }

bool NSXPCConnection::isInvalid() const { return invalid_ || xpc_.isEnding_; }

bool NSXPCConnection::mayLog() const { return xpc_.mayLog(effectiveUserIdentifier_); }

// The block is put at the end of the queue, which gives its thread to other queues after a number
// of blocks, as AsioSerialQueues.h says. Messages that the queue runs before it find the connection
// busy, and wait.
void NSXPCConnection::continueServing(SerialQueue::Block block) {
  isContinued_ = true;
  queue_->async([self = shared_from_this(), block = std::move(block)]() mutable {
    self->isContinued_ = false;
    {
      const Serving serving(self.get());
      std::exchange(block, nullptr)();
    }
    self->serveWaiting();
  });
}

void NSXPCConnection::serve(PeerMessage message) {
  if (isInvalid()) {
    makeReply(std::move(message.reply));  // The reply is dropped on the loop.
    return;
  }
  const MethodDescription* method =
      exportedInterface_ ? exportedInterface_->method(message.selector) : nullptr;
  const bool wantsReply = method && method->kind == MethodDescription::Kind::kTwoWay;
  if (!method || !exportedObject_ || (wantsReply && !message.reply)) {
    if (!message.reply) return;
    NSException why{kNSInvalidArgumentException,
                    "-[" + message.selector + "]: not a message of this object",
                    {}};
    loop_.post([reply = std::move(message.reply), why = std::move(why)] {
      std::ignore = reply->answer(std::unexpected(why));
    });
    return;
  }
  if (wantsReply && !message.arguments.empty()) message.arguments.pop_back();
  XPCReply reply = makeReply(std::move(message.reply));
  const Serving serving(this);
  exportedObject_->receiveMessage(message.selector, message.arguments,
                                  wantsReply ? std::move(reply) : XPCReply());
}

XPCReply NSXPCConnection::makeReply(std::unique_ptr<PeerReply> reply) {
  // The right to reply belongs to the loop's thread, wherever it is used or dropped.
  struct DropOnLoop {
    RunLoop* loop;
    void operator()(PeerReply* owned) const {
      loop->post([dropped = std::unique_ptr<PeerReply>(owned)] {});
    }
  };
  std::unique_ptr<PeerReply, DropOnLoop> right(reply.release(), DropOnLoop{&loop_});
  return [xpc = &xpc_, right = std::move(right)](Array values) mutable {
    if (!right) return;
    auto answer = [xpc, reply = std::unique_ptr<PeerReply>(right.release()),
                   values = Value(std::move(values))] {
      const auto answered = reply->answer(values);
      // If the caller has gone, that is no error to log.
      if (!answered && answered.error().code != ErrorCode::kNotFound) {
        xpc->logFailure("A reply could not be sent: " + describe(answered.error()));
      }
    };
    if (xpc->isOnLoop()) return answer();
    xpc->environment_.loop.post(std::move(answer));
  };
}

}  // namespace platform
