#pragma once

#include <memory>
#include <optional>
#include <string>

#include "Platform/Messages/Protocol.h"
#include "Platform/Peers/NSXPCListenerEndpoint.h"
#include "Platform/Values/Value.h"
#include "Platform/XPC/XPC.h"

namespace platform {

// A service of the product with an endpoint. Its object answers every program with a name. Ends
// before its XPC.
class EndpointOwner {
 public:
  EndpointOwner(XPC& xpc, std::string name);

  Value endpoint();

  // The answer of the endpoint's owner to a program that has this XPC; nothing if there is none.
  static std::optional<Array> ask(XPC& xpc, std::shared_ptr<const NSXPCListenerEndpoint> endpoint);

 private:
  class Greeter;

  const std::shared_ptr<Greeter> greeter_;
  const std::shared_ptr<NSXPCListener> listener_;
};

}  // namespace platform
