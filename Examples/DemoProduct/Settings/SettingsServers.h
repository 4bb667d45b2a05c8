#pragma once

#include <memory>
#include <vector>

#include "Examples/DemoProduct/Settings/SettingsServer.h"
#include "Examples/DemoProduct/Settings/SettingsStore.h"
#include "Platform/Logging/RefusalLog.h"
#include "Platform/Messages/Protocol.h"
#include "Platform/NamedConnections/NSConnection.h"
#include "Platform/NamedConnections/NamedConnections.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"

// The servers of all settings domains, in one program. Belongs to the loop's thread.
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

  // The connection names; the store must know the domains by these.
  static std::vector<std::string> domainNames();

  // Registers all names and then announces all servers, so that a client that hears of one can use
  // each. If a name can't be registered, the connection logs that, and its server is not announced.
  explicit SettingsServers(const Environment& environment);
  SettingsServers(const SettingsServers&) = delete;
  SettingsServers& operator=(const SettingsServers&) = delete;
  ~SettingsServers();

 private:
  std::vector<std::unique_ptr<SettingsServer>> servers_;
  // Shared with the connections of their clients.
  std::vector<std::shared_ptr<platform::NSConnection>> vended_;
};
