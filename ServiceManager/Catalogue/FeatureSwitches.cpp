#include "ServiceManager/Catalogue/FeatureSwitches.h"

#include "ServiceManager/Catalogue/CatalogueKeys.h"

using namespace platform;

namespace {

FeatureConfiguration configurationIn(const std::string& feature, const Value& configuration) {
  const std::string* source = configuration[catalogue_keys::kSource].string();
  const Dictionary* switches = configuration[catalogue_keys::kSwitches].dictionary();
  return {feature, source ? std::optional(*source) : std::nullopt,
          switches ? *switches : Dictionary()};
}

}  // namespace

bool areFeaturesMalformed(const ServiceCatalogue& catalogue, Label label) {
  const Value features = catalogue.service(label)[catalogue_keys::kFeatures];
  return !features.isNil() && !features.array();
}

std::optional<std::vector<FeatureConfiguration>> featureConfigurations(
    const ServiceCatalogue& catalogue, Label label) {
  const Value features = catalogue.service(label)[catalogue_keys::kFeatures];
  if (!features.array()) return std::nullopt;
  std::vector<FeatureConfiguration> all;
  for (const Value& feature : *features.array()) {
    if (!feature.string()) continue;
    const Value config = catalogue.feature(*feature.string())[catalogue_keys::kConfig];
    if (!config.array()) continue;
    for (const Value& configuration : *config.array()) {
      all.push_back(configurationIn(*feature.string(), configuration));
    }
  }
  return all;
}
