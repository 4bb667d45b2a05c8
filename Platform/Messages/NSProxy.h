#pragma once

#include <cstddef>
#include <memory>
#include <string_view>

#include "Platform/Messages/MessageReply.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Value.h"

namespace platform {

// An object of this program that receives messages by their selectors, and may answer them later.
// It bounds what it keeps for messages that it has not answered. The transport allows
// kMaxPeerCallsAwaitingReply of them for each connection, also for one that has ended meanwhile.
class MessageTarget {
 public:
  virtual ~MessageTarget() = default;

  // `selector` belongs to the protocol that is checked before this object, and there is an argument
  // for each of its colons. The method must check the types of the values. An argument may be nil.
  virtual void takeMessage(std::string_view selector, const Array& arguments,
                           MessageReply reply) = 0;
};

// A target that answers each message at once.
class MessageReceiver : public MessageTarget {
 public:
  void takeMessage(std::string_view selector, const Array& arguments, MessageReply reply) final {
    reply.answer(receiveMessage(selector, arguments));
  }

  virtual MessageResult receiveMessage(std::string_view selector, const Array& arguments) = 0;
};

// Stands for an object and receives its messages: the protocol checker for an object of this
// program, the distant object for one of another program. A Value can hold it. As an argument or a
// result (not inside a collection) it arrives at the peer as a distant object.
class NSProxy : public RemoteObject {
 public:
  // Sends a message and returns its answer. An unknown selector, and a number of arguments that
  // does not fit it, raise NSInvalidArgumentException.
  virtual MessageResult sendMessage(std::string_view selector, const Array& arguments) const = 0;

  // The same without waiting. `reply` gets the answer, once: on the loop, from inside this call, or
  // from inside the call that ends the connection.
  virtual void sendMessageAsync(std::string_view selector, const Array& arguments,
                                MessageReply reply) const = 0;

  // The number of such messages that have not been answered, of all proxies of one connection.
  virtual std::size_t messagesUnderWay() const { return 0; }
};

// The proxy in `value`, null if there is none.
inline std::shared_ptr<const NSProxy> proxyIn(const Value& value) {
  return std::dynamic_pointer_cast<const NSProxy>(value.remoteObject());
}

}  // namespace platform
