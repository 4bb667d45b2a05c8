#include "Platform/XPC/XPC.h"

#include <utility>

#include "Platform/SystemFacts/CurrentUser.h"

namespace platform {

namespace {

constexpr char kIdent[] = "NSXPCConnection";

}  // namespace

XPC::XPC(Environment environment)
    : environment_(std::move(environment)),
      userLines_(environment_.lines
                     ? environment_.lines
                     : std::make_shared<UserLines>(currentEffectiveUserId(), environment_.loop,
                                                   environment_.log, kIdent)),
      failures_(environment_.loop, environment_.log, kIdent),
      refusals_(environment_.log, kIdent, userLines_),
      clientQueues_(addQueues()) {}

XPC::~XPC() {
  // Ends continued work. Otherwise it would go on while its caller waits, and the queues would
  // never be empty.
  isEnding_ = true;
  // Their blocks may still send replies, and may own the last reference to a connection.
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
