#pragma once

#include <memory>

#include "Libraries/Static/Interprocess Communications/VantorDistantObject/KLXConnectionAuthenticator.h"
#include "Platform/CodeSigning/CodeSignature.h"
#include "Platform/Files/ExtendedAttributes.h"
#include "Platform/Messages/NSProtocolChecker.h"
#include "Platform/Messages/NSProxy.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Platform/XPC/XPC.h"
#include "ServiceManager/ServiceManager/AuthServer.h"
#include "ServiceManager/ServiceManager/ORBExecInfoHandler.h"
#include "ServiceManager/ServiceManager/ORBServiceManagerXPCHandler.h"

// The daemon's servers: names, protocols, root objects, and the two XPC listeners. They end with
// this. Belongs to the main thread.
class VendedServers {
 public:
  // All of it outlives this.
  struct Environment {
    platform::RunLoop& runLoop;
    platform::NamedConnections& connections;
    platform::DistributedNotificationCenter& distributedCenter;
    const platform::ProtocolTable& protocols;
    const platform::SystemInformation& system;
    platform::XPC& xpc;
    platform::CodeSignatures& codeSignatures;
    platform::ExtendedAttributes& attributes;
    std::shared_ptr<ExecInfoHandlerDelegate> lastUser;  // shared with the requests that ask it
    // The objects behind the two servers that change services, and the delegate of both.
    platform::MessageTarget& installer;
    platform::MessageTarget& userInterface;
    platform::NSConnectionDelegate& delegate;
    const platform::Value& secret;  // of this run
  };

  // One server that clients find by its name.
  struct Server {
    std::shared_ptr<platform::NSConnection> connection;  // null before it is vended
    std::shared_ptr<platform::NSProtocolChecker> rootObject;
  };

  explicit VendedServers(const Environment& environment)
      : environment_(environment), authServer_(environment.secret) {}
  VendedServers(const VendedServers&) = delete;
  VendedServers& operator=(const VendedServers&) = delete;
  // Waits for no request. Those to the executable-information service may outlast this: they end
  // soon, and later ones have no delegate.
  ~VendedServers();

  // A name that can't be registered is logged, and the other servers are vended all the same.
  void vendServers();
  void vendXPCListeners();  // none if the system is too old for them

  // Null before vendServers().
  KLXConnectionAuthenticator* connectionAuthenticator() const {
    return connectionAuthenticator_.get();
  }
  const Server& installer() const { return installer_; }
  const Server& userInterface() const { return userInterface_; }
  const Server& deamon() const { return deamon_; }  // spelled so
  // Null without listeners.
  const std::shared_ptr<ORBServiceManagerXPCHandler>& xpcHandler() const { return xpcHandler_; }
  const std::shared_ptr<ORBExecInfoHandler>& execHandler() const { return execHandler_; }
  const std::shared_ptr<platform::NSXPCListener>& xpcListener() const { return xpcListener_; }
  const std::shared_ptr<platform::NSXPCListener>& execHandlerXPCListener() const {
    return execHandlerXPCListener_;
  }

 private:
  // A server by that name, whose clients may send `target` the messages of the protocol.
  Server vend(const char* name, const char* protocol, platform::NSConnectionDelegate& delegate,
              platform::MessageTarget& target) const;
  void endXPCListeners();

  const Environment environment_;
  AuthServer authServer_;
  std::unique_ptr<KLXConnectionAuthenticator> connectionAuthenticator_;
  Server installer_;
  Server userInterface_;
  Server deamon_;
  // Shared with their connections.
  std::shared_ptr<ORBServiceManagerXPCHandler> xpcHandler_;
  std::shared_ptr<ORBExecInfoHandler> execHandler_;
  std::shared_ptr<platform::NSXPCListener> xpcListener_;
  std::shared_ptr<platform::NSXPCListener> execHandlerXPCListener_;
};
