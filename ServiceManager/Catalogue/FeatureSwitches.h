#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"

// The switches of one settings server that ask for a feature. Any of them is enough.
struct FeatureConfiguration {
  std::string feature;
  std::optional<std::string> source;  // the prefix of its settings server, if it has one
  platform::Dictionary switches;      // the keys of the settings and the values that ask for it
};

// Whether the service's "Features" are there and not an array. It is a feature service then, and no
// switch can ask for it: the evaluation and the retry leave it as it is. Pure.
bool areFeaturesMalformed(const ServiceCatalogue& catalogue, Label label);

// The configurations of all features of a feature service, in the catalogue's order, which is the
// order in which an evaluation reads their switches. A configuration without switches is included,
// since an evaluation makes the client of its settings server, too. Nothing if the service's
// "Features" are not an array; a feature without "Config" has no configuration. Pure.
std::optional<std::vector<FeatureConfiguration>> featureConfigurations(
    const ServiceCatalogue& catalogue, Label label);
