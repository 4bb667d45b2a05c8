#pragma once

#include <memory>
#include <string>
#include <vector>

#include "Kit/SettingsServer/SettingsServer.h"
#include "Kit/SettingsServer/SettingsStore.h"
#include "Platform/Logging/RefusalLog.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"

// A server of a domain of the program's own announces its start by the domain's name with this.
inline constexpr char kOwnDomainStartSuffix[] = ".didStart";

// The servers of all settings domains of the product, and of domains of the program's own, in one
// program. Belongs to the loop's thread.
class SettingsServers {
 public:
  // All of it outlives this. The delegate authenticates the clients, and the table holds the
  // settings protocol.
  struct Environment {
    platform::NamedConnections& connections;
    platform::NSConnectionDelegate& delegate;
    const platform::ProtocolTable& protocols;
    platform::DistributedNotificationCenter& center;
    SettingsStore& store;
    platform::RefusalLog& refusals;
  };

  // The connection names of the product's domains; the store must know the domains by these.
  static std::vector<std::string> domainNames();

  // Registers all names and then announces all servers, so that a client that hears of one can use
  // each. If a name can't be registered, the connection logs that, and its server is not announced.
  // The store knows the program's own domains by their names.
  explicit SettingsServers(const Environment& environment,
                           const std::vector<std::string>& ownDomains = {});
  SettingsServers(const SettingsServers&) = delete;
  SettingsServers& operator=(const SettingsServers&) = delete;
  ~SettingsServers();

 private:
  void serve(const Environment& environment, const ServedDomain& domain);

  std::vector<std::unique_ptr<SettingsServer>> servers_;
  std::vector<SettingsServer*> reachable_;
  // Shared with the connections of their clients.
  std::vector<std::shared_ptr<platform::NSConnection>> vended_;
};
