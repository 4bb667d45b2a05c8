#pragma once

#include <memory>
#include <string>

#include "Platform/Logging/SystemLog.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Platform/XPC/XPC.h"

// The protocol of the demo product's services: "greetWithReply:" answers with a text.
inline const platform::Protocol& greetingProtocol() {
  static const platform::Protocol protocol(
      "DemoGreetingProtocol", {{"greetWithReply:", platform::MethodDescription::Kind::kTwoWay}});
  return protocol;
}

// A service's endpoint: made at the service's start, registered as soon as a client looks for it.
class GreetingEndpoint final {
 public:
  // All but the name outlive this.
  GreetingEndpoint(platform::XPC& xpc, platform::DistributedNotificationCenter& center,
                   const platform::SystemInformation& system,
                   const platform::ProtocolTable& protocols, platform::SystemLog& log,
                   std::string name);

 private:
  class Greeter;

  void registerIt();

  platform::XPC& xpc_;
  const platform::SystemInformation& system_;
  const platform::ProtocolTable& protocols_;
  platform::SystemLog& log_;
  const std::string name_;
  // Shared with the connections that it serves.
  std::shared_ptr<Greeter> greeter_;
  std::shared_ptr<platform::NSXPCListener> listener_;
  std::shared_ptr<platform::NSXPCConnection> registry_;
  std::unique_ptr<platform::DistributedNotificationCenter::Observation> observation_;
};
