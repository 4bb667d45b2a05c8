#include "ServiceManager/ServiceManager/VendedServers.h"

#include "ServiceManager/ServiceManager/Protocols.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

namespace {

constexpr char kInstallerServer[] = "com.vantor.servicemanager.installer.server";
constexpr char kUserInterfaceServer[] = "com.vantor.servicemanager.userinterface.server";
constexpr char kAuthServer[] = "com.vantor.common.servicemanager.auth";

// The release that brought XPC connections, 10.8. The major number is deliberately not checked.
constexpr std::uint64_t kFirstMinorVersion = 8;

}  // namespace

VendedServers::~VendedServers() {
  endXPCListeners();
  // The delegate and the targets of the root objects end here; connections may last longer.
  for (const Server* server : {&installer_, &userInterface_, &deamon_}) {
    if (server->connection) server->connection->invalidate();
  }
}

void VendedServers::vendServers() {
  connectionAuthenticator_ = std::make_unique<KLXConnectionAuthenticator>(environment_.system);
  installer_ = vend(kInstallerServer, kORBServiceManagerInstallerProtocol, environment_.delegate,
                    environment_.installer);
  userInterface_ = vend(kUserInterfaceServer, kORBServiceManagerUserInterfaceProtocol,
                        environment_.delegate, environment_.userInterface);
  deamon_ = vend(kAuthServer, kServiceManagerAuthProtocol, *connectionAuthenticator_, authServer_);
}

VendedServers::Server VendedServers::vend(const char* name, const char* protocol,
                                          NSConnectionDelegate& delegate,
                                          MessageTarget& target) const {
  Server server{
      environment_.connections.makeConnection(),
      std::make_shared<NSProtocolChecker>(&target, environment_.protocols.find(protocol))};
  server.connection->setDelegate(&delegate);
  server.connection->registerName(name);
  server.connection->setRootObject(server.rootObject);
  return server;
}

void VendedServers::vendXPCListeners() {
  if (NSProcessInfo::Extensions::osVersion(&environment_.system).minorVersion <
      kFirstMinorVersion) {
    return;
  }
  execHandler_ = std::make_shared<ORBExecInfoHandler>(
      ORBExecInfoHandler::Environment{environment_.codeSignatures, environment_.attributes,
                                      environment_.protocols},
      environment_.lastUser);
  xpcHandler_ = std::make_shared<ORBServiceManagerXPCHandler>(
      environment_.runLoop, environment_.system, environment_.distributedCenter,
      environment_.protocols);
  xpcListener_ = environment_.xpc.makeListener(kEndpointRegistryService);
  xpcListener_->setDelegate(xpcHandler_);
  xpcListener_->resume();
  execHandlerXPCListener_ = environment_.xpc.makeAnonymousListener();
  execHandlerXPCListener_->setDelegate(execHandler_);
  execHandlerXPCListener_->resume();
  xpcHandler_->registerXPCListenerEndpoint(execHandlerXPCListener_->endpoint(), kExecInfoEndpoint);
}

void VendedServers::endXPCListeners() {
  for (const auto& listener : {xpcListener_, execHandlerXPCListener_}) {
    if (listener) listener->invalidate();
  }
  if (!execHandler_) return;
  execHandler_->stop();
  execHandler_->setDelegate(nullptr);
}
