#pragma once

#include <memory>
#include <string>

#include "Platform/Logging/SystemLog.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/XPC/NSXPCListener.h"
#include "Platform/XPC/XPC.h"

// What a service of the demo product answers: "greetWithReply:" with a text.
inline const platform::Protocol& greetingProtocol() {
  static const platform::Protocol protocol(
      "DemoGreetingProtocol", {{"greetWithReply:", platform::MethodDescription::Kind::kTwoWay}});
  return protocol;
}

// An endpoint of a service: made at its start, registered as soon as somebody looks for it.
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
