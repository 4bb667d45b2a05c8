#pragma once

#include <memory>
#include <string_view>

#include "Platform/Values/Value.h"

namespace platform {

// The right to connect to one listener, whoever holds it: it can't be guessed, it can be handed on
// in a message, and it does nothing else. It says nothing of whether the listener still lives.
//
// Immutable, any thread. A Value can hold it; it travels in messages of connections that carry
// endpoints (PeerMessageContents), at any place in them.
class NSXPCListenerEndpoint : public RemoteObject {
 public:
  std::string_view className() const override { return "NSXPCListenerEndpoint"; }
  bool conformsToProtocol(std::string_view /*protocolName*/) const override { return false; }
};

// The endpoint that `value` holds, null where it holds none.
inline std::shared_ptr<const NSXPCListenerEndpoint> endpointIn(const Value& value) {
  return std::dynamic_pointer_cast<const NSXPCListenerEndpoint>(value.remoteObject());
}

}  // namespace platform
