#include "ServiceManager/Settings/SettingsSources.h"

#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"

using namespace platform;

namespace {

constexpr char kClientFactorySuffix[] = "SettingsClientWithDelegate:";

}  // namespace

SettingsSources::SettingsSources(const SettingsClientFactories& factories,
                                 KLXGlobalSettingsClientDelegate& delegate)
    : factories_(factories), delegate_(delegate) {}

SettingsClient* SettingsSources::configurationWithSelectorPrefix(const std::string& prefix) {
  if (!configurationClients_) configurationClients_.emplace();
  if (const auto known = configurationClients_->find(prefix);
      known != configurationClients_->end()) {
    return known->second.get();
  }
  // The entry comes first, so that a factory that fails in any way is not tried again.
  const auto entry = configurationClients_->emplace(prefix, nullptr).first;
  entry->second = makeClient(prefix + kClientFactorySuffix);
  return entry->second.get();
}

std::unique_ptr<SettingsClient> SettingsSources::makeClient(const std::string& selector) const {
  const auto* factory = factories_.find(selector);
  SettingsClientResult made =
      factory ? (*factory)(delegate_)
              : std::unexpected(NSException{kNSInvalidArgumentException,
                                            "+[KLXGlobalSettingsClient " + selector +
                                                "]: unrecognized selector sent to class",
                                            {}});
  if (made) return std::move(*made);
  vantorlogger2_line(
      ASL_LEVEL_ERR,
      stringWithFormat("Unable to resolve method name for selector: %@: Exception: %@", selector,
                       made.error()));
  return nullptr;
}

void SettingsSources::forgetConnections() {
  if (!configurationClients_) return;
  for (const auto& [prefix, client] : *configurationClients_) {
    if (client) client->forgetConnection();
  }
}
