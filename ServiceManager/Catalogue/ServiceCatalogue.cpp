#include "ServiceManager/Catalogue/ServiceCatalogue.h"

#include <algorithm>
#include <utility>

#include "ServiceManager/Catalogue/CatalogueKeys.h"

using namespace platform;

ServiceCatalogue::ServiceCatalogue(Value serviceInfo, Dictionary otherProductsServices)
    : serviceInfo_(std::move(serviceInfo)),
      otherProductsServices_(std::move(otherProductsServices)) {}

std::string ServiceCatalogue::primaryLabel() const {
  const std::string* label = serviceInfo_[catalogue_keys::kPrimary].string();
  return label ? *label : std::string();
}

std::optional<std::string> ServiceCatalogue::labelForNotification(std::string_view name) const {
  if (!services().dictionary()) return std::nullopt;
  for (const auto& [label, entry] : *services().dictionary()) {
    const std::string* notification = entry[catalogue_keys::kNotification].string();
    if (notification && *notification == name) return label;
  }
  return std::nullopt;
}

std::vector<std::string> ServiceCatalogue::extensionsOf(Label label) const {
  std::vector<std::string> names;
  const Value entry = service(label);
  const Array* extensions = entry[catalogue_keys::kKernelExtensions].array();
  if (!extensions) return names;
  for (const Value& name : *extensions) {
    if (name.string()) names.push_back(*name.string());
  }
  return names;
}

std::optional<std::string> ServiceCatalogue::extensionIdentifier(std::string_view kextName) const {
  const std::string* identifier = extensions()[kextName][catalogue_keys::kIdentifier].string();
  return identifier ? std::optional(*identifier) : std::nullopt;
}

std::set<std::string> ServiceCatalogue::daemonsUsingKext(const std::string& kextName) const {
  std::set<std::string> labels;
  if (!services().dictionary()) return labels;
  for (const auto& [label, entry] : *services().dictionary()) {
    const std::vector<std::string> names = extensionsOf(label);
    if (std::ranges::find(names, kextName) != names.end()) labels.insert(label);
  }
  return labels;
}
