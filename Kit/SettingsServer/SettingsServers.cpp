#include "Kit/SettingsServer/SettingsServers.h"

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Global Settings/GlobalSettingsClient/KLXGlobalSettingsProtocol.h"

std::vector<std::string> SettingsServers::domainNames() {
  std::vector<std::string> names;
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains)
    names.emplace_back(domain.connectionName);
  return names;
}

SettingsServers::SettingsServers(const Environment& environment,
                                 const std::vector<std::string>& ownDomains) {
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains)
    serve(environment, {domain.connectionName, domain.startNotification});
  for (const std::string& domain : ownDomains)
    serve(environment, {domain, domain + kOwnDomainStartSuffix});
  for (SettingsServer* server : reachable_) server->announceStart();
}

SettingsServers::~SettingsServers() {
  for (const auto& connection : vended_) connection->invalidate();
}

void SettingsServers::serve(const Environment& environment, const ServedDomain& domain) {
  servers_.push_back(std::make_unique<SettingsServer>(domain, environment.store, environment.center,
                                                      environment.refusals));
  auto connection = environment.connections.makeConnection();
  connection->setDelegate(&environment.delegate);
  connection->setRootObject(std::make_shared<platform::NSProtocolChecker>(
      servers_.back().get(), environment.protocols.find(kKLXGlobalSettingsProtocol)));
  if (!connection->registerName(domain.connectionName)) return;
  reachable_.push_back(servers_.back().get());
  vended_.push_back(std::move(connection));
}
