#include "ServiceManager/Catalogue/FeatureSwitches.h"

using namespace platform;

namespace {

FeatureConfiguration configurationIn(const std::string& feature, const Value& configuration) {
  const std::string* source = configuration["Source"].string();
  const Dictionary* switches = configuration["Switches"].dictionary();
  return {feature, source ? std::optional(*source) : std::nullopt,
          switches ? *switches : Dictionary()};
}

}  // namespace

bool areFeaturesMalformed(const ServiceCatalogue& catalogue, Label label) {
  const Value features = catalogue.service(label)["Features"];
  return !features.isNil() && !features.array();
}

std::optional<std::vector<FeatureConfiguration>> featureConfigurations(
    const ServiceCatalogue& catalogue, Label label) {
  const Value features = catalogue.service(label)["Features"];
  if (!features.array()) return std::nullopt;
  std::vector<FeatureConfiguration> all;
  for (const Value& feature : *features.array()) {
    if (!feature.string()) continue;
    const Value config = catalogue.feature(*feature.string())["Config"];
    if (!config.array()) continue;
    for (const Value& configuration : *config.array()) {
      all.push_back(configurationIn(*feature.string(), configuration));
    }
  }
  return all;
}
