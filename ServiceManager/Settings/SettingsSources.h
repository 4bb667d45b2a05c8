#pragma once

#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"
#include "Platform/Values/Value.h"

// The settings servers that the catalogue's features name as their "Source". Belongs to the
// thread of its factories but for getLastLoggedInUserHomeDirectory().
class SettingsSources {
 public:
  // By the prefix that is the "Source"; null if making the client failed.
  using ConfigurationClients = std::map<std::string, std::unique_ptr<SettingsClient>>;

  // Calls `ask` with factories whose clients belong to the calling thread and end with the call.
  using WithFactories =
      std::function<void(const std::function<void(const SettingsClientFactories&)>& ask)>;

  // `factories` and `delegate` outlive this. `withFactoriesOfThisThread` is called on any thread.
  SettingsSources(const SettingsClientFactories& factories, WithFactories withFactoriesOfThisThread,
                  KLXGlobalSettingsClientDelegate& delegate);

  // The client of the settings server that a "Source" names; null if there is none. A client that
  // could not be made is not tried again.
  SettingsClient* configurationWithSelectorPrefix(const std::string& prefix);

  // Nothing until the first use.
  const std::optional<ConfigurationClients>& configurationClients() const {
    return configurationClients_;
  }

  // The starts of servers may have been missed: each client looks its server up again.
  void forgetConnections();

  // The home folder of the user who logged in last, nil if it is not known. Any thread; blocks for
  // the answer of the settings server.
  platform::Value getLastLoggedInUserHomeDirectory() const;

 private:
  std::unique_ptr<SettingsClient> makeClient(const std::string& selector) const;

  const SettingsClientFactories& factories_;
  const WithFactories withFactoriesOfThisThread_;
  KLXGlobalSettingsClientDelegate& delegate_;
  std::optional<ConfigurationClients> configurationClients_;
};
