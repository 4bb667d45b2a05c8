#include "Platform/XPC/XPC.h"

#include <utility>

namespace platform {

XPC::XPC(Environment environment)
    : environment_(std::move(environment)),
      failures_(environment_.loop, environment_.log, "NSXPCConnection"),
      clientQueues_(addQueues()) {}

XPC::~XPC() {
  // Or what continues as long as somebody waits for it would, and the queues never be empty.
  isEnding_ = true;
  // Their blocks may still send replies, and may be what keeps a connection.
  queues_.clear();
  const auto ending = std::exchange(accepted_, {});
}

SerialQueues& XPC::addQueues() {
  const std::lock_guard lock(mutex_);
  return *queues_.emplace_back(environment_.makeQueues());
}

std::shared_ptr<NSXPCListener> XPC::makeListener(std::string machService) {
  return std::make_shared<NSXPCListener>(NSXPCListener::Maker(), *this, addQueues(),
                                         std::move(machService));
}

std::shared_ptr<NSXPCListener> XPC::makeAnonymousListener() { return makeListener({}); }

std::shared_ptr<NSXPCConnection> XPC::makeConnection(std::string machService) {
  return std::make_shared<NSXPCConnection>(NSXPCConnection::Maker(), *this,
                                           clientQueues_.makeQueue("xpc." + machService),
                                           std::move(machService));
}

std::shared_ptr<NSXPCConnection> XPC::makeConnection(
    std::shared_ptr<const NSXPCListenerEndpoint> endpoint) {
  return std::make_shared<NSXPCConnection>(NSXPCConnection::Maker(), *this,
                                           clientQueues_.makeQueue("xpc.endpoint"),
                                           std::move(endpoint));
}

}  // namespace platform
