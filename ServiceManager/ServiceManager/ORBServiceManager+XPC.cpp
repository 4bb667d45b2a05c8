#include "Platform/XPC/XPC.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/Protocols.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

namespace {

// The release that brought XPC connections, 10.8. The major number is deliberately not looked at.
constexpr std::uint64_t kFirstMinorVersion = 8;

}  // namespace

void ORBServiceManager::vendXPCListeners() {
  if (NSProcessInfo::Extensions::osVersion(&platform_.system).minorVersion < kFirstMinorVersion) {
    return;
  }
  execHandler_ = std::make_shared<ORBExecInfoHandler>(
      ORBExecInfoHandler::Environment{platform_.codeSignatures, platform_.attributes,
                                      platform_.protocols},
      this);
  xpcHandler_ = std::make_shared<ORBServiceManagerXPCHandler>(
      platform_.system, platform_.distributedCenter, platform_.protocols);
  xpcListener_ = platform_.xpc.makeListener(kEndpointRegistryService);
  xpcListener_->setDelegate(xpcHandler_);
  xpcListener_->resume();
  execHandlerXPCListener_ = platform_.xpc.makeAnonymousListener();
  execHandlerXPCListener_->setDelegate(execHandler_);
  execHandlerXPCListener_->resume();
  xpcHandler_->registerXPCListenerEndpoint(execHandlerXPCListener_->endpoint(), kExecInfoEndpoint);
}

// Requests that are being served may outlast this: they lose their delegate, and end soon.
void ORBServiceManager::endXPCListeners() {
  for (const auto& listener : {xpcListener_, execHandlerXPCListener_}) {
    if (listener) listener->invalidate();
  }
  if (!execHandler_) return;
  execHandler_->stop();
  execHandler_->setDelegate(nullptr);
}
