#pragma once

#include <chrono>
#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Messages/Protocol.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "Platform/XPC/NSXPCListener.h"

// The registry of endpoints: the product's processes publish their listeners in it by name, and
// find those of others. Both need the passkey, the product's token; the daemon itself needs none.
//
// Requests come on the queues of several connections at once, and any thread may use it.
//
// A name belongs to the user who has registered it. While its listener lives, only that user and
// root replace it. If the owner has died, a lookup finds nothing. The entry stays until the name is
// registered again, or until there is no room for another name.
class ORBServiceManagerXPCHandler final
    : public platform::NSXPCListenerDelegate,
      public platform::NSXPCExportedObject,
      public std::enable_shared_from_this<ORBServiceManagerXPCHandler> {
 public:
  static constexpr char kClassName[] = "ORBServiceManagerXPCHandler";
  // Each entry holds a descriptor for as long as the daemon runs.
  static constexpr std::size_t kMaxNames = 1024;
  // The names that one user other than root and our own may have, and all such users together.
  static constexpr std::size_t kMaxNamesOfUser = 256;
  static constexpr std::size_t kMaxNamesOfOrdinaryUsers = 768;
  // Dead names are searched for at most once in this time, since all listeners are probed.
  static constexpr platform::Duration kSearchInterval = std::chrono::seconds(1);
  static constexpr std::size_t kMaxNameBytes = 1024;
  // The unknown names whose owners may wait to be asked. The bus takes them all at once.
  static constexpr std::size_t kMaxWantedNames = 256;
  // The part of them that one user other than root and our own may have asked for.
  static constexpr std::size_t kMaxWantedNamesOfUser = 64;
  // Names that had no room are told at most once in this time.
  static constexpr platform::Duration kLeftOutInterval = std::chrono::minutes(1);

  // Shared with all other holders of the same endpoint; null if there is none.
  using Endpoint = std::shared_ptr<const platform::NSXPCListenerEndpoint>;

  // All of it outlives this. Owners of names are asked on the main loop.
  ORBServiceManagerXPCHandler(platform::RunLoop& mainLoop,
                              const platform::SystemInformation& system,
                              platform::DistributedNotificationCenter& distributedCenter,
                              const platform::ProtocolTable& protocols);
  ORBServiceManagerXPCHandler(const ORBServiceManagerXPCHandler&) = delete;
  ORBServiceManagerXPCHandler& operator=(const ORBServiceManagerXPCHandler&) = delete;
  ~ORBServiceManagerXPCHandler() override;

  // Accepts every connection: the passkey is checked with each request.
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

  // The token by which a client recognises the daemon.
  void signature(SignatureReply withReply);
  // Compares byte for byte, in constant time.
  bool validatePasskey(const platform::Value& passkey) const;
  // A name that is missing or too long can't be registered.
  void registerXPCListenerEndpoint(const Endpoint& endpoint, const platform::Value& forPasskey,
                                   const std::optional<std::string>& withName,
                                   RegisterReply withReply);
  // With a wrong passkey the reply is deliberately never called, so that a stranger learns nothing.
  // If the name has no entry or its listener has ended, the endpoint is null, and the owner of the
  // name is asked to register, unless the name can't be registered.
  void xpcListenerEndpoint(const platform::Value& forPasskey,
                           const std::optional<std::string>& withName, EndpointReply withReply);
  // Asks once for all lookups of one name that come before the main loop gets to it: any process
  // may look up unknown names faster than the bus takes requests.
  void sendNotificationToRegisterForName(const std::string& name);

  // For the daemon itself. A name whose listener has ended has no endpoint.
  void registerXPCListenerEndpoint(const Endpoint& endpoint, const std::string& withName);
  Endpoint xpcListenerEndpointByName(const std::string& name) const;

 private:
  struct Entry {
    Endpoint endpoint;
    std::uint32_t user = 0;
  };

  static std::uint32_t askingUser();
  // Registers the endpoint within the limits above. The reason for a refusal, or nothing.
  std::optional<std::string> registerWithinLimits(const Endpoint& endpoint,
                                                  const std::optional<std::string>& name);
  // Whether the user may have one more name. Needs the lock, like the next.
  bool hasRoom(std::uint32_t user, bool isNewName) const;
  // The endpoints of the names that were given up, which must end after the lock.
  std::vector<Endpoint> giveUpDeadNames(const std::string& except);

  void askForWantedNames();

  platform::RunLoop& mainLoop_;
  const platform::SystemInformation& system_;
  platform::DistributedNotificationCenter& distributedCenter_;
  const platform::ProtocolTable& protocols_;
  const std::uint32_t threadOfLogger_;

  mutable std::mutex mutex_;
  std::map<std::string, Entry> endpointListeners_;
  std::optional<platform::Instant> searched_;
  struct WantedName {
    std::string name;
    std::uint32_t user = 0;
  };
  std::vector<WantedName> wantedNames_;  // in the order of their lookups
  std::size_t leftOut_ = 0;              // names that had no room
  std::optional<platform::Instant> toldLeftOut_;
};
