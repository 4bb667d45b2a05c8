#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Messages/Protocol.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "Platform/XPC/NSXPCListener.h"

// The registry of endpoints: the product's processes publish their listeners in it by name, and
// find those of others. Whoever shows the passkey, the product's token, may do either; the daemon
// itself needs none.
//
// Requests come on the queues of several connections at once, and any thread may use it. Entries
// are replaced and never removed: that of a dead process stays until its owner registers again.
class ORBServiceManagerXPCHandler final
    : public platform::NSXPCListenerDelegate,
      public platform::NSXPCExportedObject,
      public std::enable_shared_from_this<ORBServiceManagerXPCHandler> {
 public:
  static constexpr char kClassName[] = "ORBServiceManagerXPCHandler";
  // Each entry is a descriptor of the daemon's, for good.
  static constexpr std::size_t kMaxNames = 1024;
  static constexpr std::size_t kMaxNameBytes = 1024;

  // Shared with whoever holds the same endpoint; null where there is none.
  using Endpoint = std::shared_ptr<const platform::NSXPCListenerEndpoint>;

  // All of it outlives this.
  ORBServiceManagerXPCHandler(const platform::SystemInformation& system,
                              platform::DistributedNotificationCenter& distributedCenter,
                              const platform::ProtocolTable& protocols);
  ORBServiceManagerXPCHandler(const ORBServiceManagerXPCHandler&) = delete;
  ORBServiceManagerXPCHandler& operator=(const ORBServiceManagerXPCHandler&) = delete;
  ~ORBServiceManagerXPCHandler() override;

  // Accepts everybody: it is each request that is asked for the passkey.
  bool listener(
      platform::NSXPCListener& listener,
      const std::shared_ptr<platform::NSXPCConnection>& shouldAcceptNewConnection) override;

  // The requests, by their selectors.
  void receiveMessage(std::string_view selector, const platform::Array& arguments,
                      platform::XPCReply reply) override;

  using SignatureReply = std::move_only_function<void(const platform::Data& signature)>;
  using RegisterReply =
      std::move_only_function<void(bool success, const std::optional<std::string>& message)>;
  using EndpointReply = std::move_only_function<void(const Endpoint& endpoint)>;

  // The token by which a client knows the daemon.
  void signature(SignatureReply withReply);
  // Byte for byte, in a time that says nothing of the bytes.
  bool validatePasskey(const platform::Value& passkey) const;
  // A name that is not there or too long can't be registered.
  void registerXPCListenerEndpoint(const Endpoint& endpoint, const platform::Value& forPasskey,
                                   const std::optional<std::string>& withName,
                                   RegisterReply withReply);
  // With a wrong passkey the reply is never called, deliberately: who does not belong here learns
  // nothing. A name that nobody has is answered with null, and its owner asked to register; of a
  // name that can't be registered there is none.
  void xpcListenerEndpoint(const platform::Value& forPasskey,
                           const std::optional<std::string>& withName, EndpointReply withReply);
  void sendNotificationToRegisterForName(const std::string& name);

  // For the daemon itself.
  void registerXPCListenerEndpoint(const Endpoint& endpoint, const std::string& withName);
  Endpoint xpcListenerEndpointByName(const std::string& name) const;

 private:
  // Registers them, within the limits above. Why they can't be, or nothing.
  std::optional<std::string> registerWithinLimits(Endpoint endpoint,
                                                  const std::optional<std::string>& name);

  const platform::SystemInformation& system_;
  platform::DistributedNotificationCenter& distributedCenter_;
  const platform::ProtocolTable& protocols_;
  const std::uint32_t threadOfLogger_;

  mutable std::mutex mutex_;
  std::map<std::string, Endpoint> endpointListeners_;
};
