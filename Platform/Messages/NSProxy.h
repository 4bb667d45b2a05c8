#pragma once

#include <memory>
#include <string_view>

#include "Platform/Values/Exception.h"
#include "Platform/Values/Value.h"

namespace platform {

// An object of this program that is sent messages by their selectors.
class MessageReceiver {
 public:
  virtual ~MessageReceiver() = default;

  // `selector` belongs to the protocol that stands before this object, and there is an argument for
  // each of its colons; what kinds of values they are is for the method to check. An argument may
  // be nil.
  virtual MessageResult receiveMessage(std::string_view selector, const Array& arguments) = 0;
};

// What stands for an object and is sent its messages: for one of this program the protocol checker,
// for one of another program the distant object. A Value can hold it; passed as an argument or a
// result (not inside a collection) it reaches the peer as a distant object that can be called.
class NSProxy : public RemoteObject {
 public:
  // Sends a message and hands back what it ends with. An unknown selector, and a number of
  // arguments that does not fit it, raise NSInvalidArgumentException.
  virtual MessageResult sendMessage(std::string_view selector, const Array& arguments) const = 0;
};

// The proxy that `value` holds, null where it holds none.
inline std::shared_ptr<const NSProxy> proxyIn(const Value& value) {
  return std::dynamic_pointer_cast<const NSProxy>(value.remoteObject());
}

}  // namespace platform
