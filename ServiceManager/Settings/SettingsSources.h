#pragma once

#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Global Settings/GlobalSettingsClient/SettingsClient.h"

// The settings servers that the catalogue's features name as their "Source". Belongs to the
// thread of its factories.
class SettingsSources {
 public:
  // By the prefix that is the "Source"; null if making the client failed.
  using ConfigurationClients = std::map<std::string, std::unique_ptr<SettingsClient>>;

  // `factories` and `delegate` outlive this.
  SettingsSources(const SettingsClientFactories& factories,
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

 private:
  std::unique_ptr<SettingsClient> makeClient(const std::string& selector) const;

  const SettingsClientFactories& factories_;
  KLXGlobalSettingsClientDelegate& delegate_;
  std::optional<ConfigurationClients> configurationClients_;
};
