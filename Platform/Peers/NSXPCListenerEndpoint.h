#pragma once

#include <memory>
#include <string_view>

#include "Platform/Values/Value.h"

namespace platform {

// The right of its holder to connect to one listener. It can't be guessed, and it can be sent in a
// message.
//
// Immutable; any thread may use it. A Value can hold it, and it can be anywhere in messages of
// connections with endpoints (PeerMessageContents).
class NSXPCListenerEndpoint : public RemoteObject {
 public:
  std::string_view className() const override { return "NSXPCListenerEndpoint"; }
  bool conformsToProtocol(std::string_view /*protocolName*/) const override { return false; }

  // Whether the listener still exists; true also if the system can't tell. The listener does not
  // notice the question.
  virtual bool hasListener() const = 0;
};

// The endpoint in `value`, null if there is none.
inline std::shared_ptr<const NSXPCListenerEndpoint> endpointIn(const Value& value) {
  return std::dynamic_pointer_cast<const NSXPCListenerEndpoint>(value.remoteObject());
}

}  // namespace platform
