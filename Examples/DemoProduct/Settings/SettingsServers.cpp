#include "Examples/DemoProduct/Settings/SettingsServers.h"

#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"

std::vector<std::string> SettingsServers::domainNames() {
  std::vector<std::string> names;
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains)
    names.emplace_back(domain.connectionName);
  return names;
}

SettingsServers::SettingsServers(const Environment& environment) {
  const platform::Protocol* protocol = environment.protocols.find(kKLXGlobalSettingsProtocol);
  std::vector<SettingsServer*> reachable;
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains) {
    servers_.push_back(std::make_unique<SettingsServer>(domain, environment.store,
                                                        environment.center, environment.refusals));
    auto connection = environment.connections.makeConnection();
    connection->setDelegate(&environment.delegate);
    connection->setRootObject(
        std::make_shared<platform::NSProtocolChecker>(servers_.back().get(), protocol));
    if (!connection->registerName(domain.connectionName)) continue;
    reachable.push_back(servers_.back().get());
    vended_.push_back(std::move(connection));
  }
  for (SettingsServer* server : reachable) server->announceStart();
}

SettingsServers::~SettingsServers() {
  for (const auto& connection : vended_) connection->invalidate();
}
