#include "ServiceManager/Catalogue/ProductTypes.h"

#include <algorithm>
#include <array>

#include "ServiceManager/Catalogue/CatalogueKeys.h"

using namespace platform;

namespace {

constexpr std::array<ProductType, 5> kProductTypes{{
    {"E60F4B38-97A1-4C25-BD83-0F5C2D7E19A6", "kKLXInstallTypePersonalID", false},
    {"5B13D7E2-8C40-4D9F-A27B-6E08F4C1B952", "kKLXInstallTypeServerManagedID", false},
    {"A4E92C17-D35B-4A08-8F6C-2B71E0D94A3E", "kKLXInstallTypeUnmanagedID", false},
    {"71C0E5B9-2A8D-4F36-B0E4-9D63A1F2C875", "kKLXInstallTypeHostedManagedID", true},
    {"3D8F1A20-6B4C-4E7A-9C11-5A2E7B90C4D1", "kKLXInstallTypeHouseholdID", true},
}};

}  // namespace

std::span<const ProductType> productTypes() { return kProductTypes; }

const ProductType* productTypeForGuid(std::string_view guid) {
  const auto found = std::ranges::find(kProductTypes, guid, &ProductType::guid);
  return found == kProductTypes.end() ? nullptr : &*found;
}

Dictionary servicesOfProduct(const Value& services, std::string_view installTypeName) {
  Dictionary matching;
  if (!services.dictionary()) return matching;
  for (const auto& [label, entry] : *services.dictionary()) {
    const Array* products = entry[catalogue_keys::kProducts].array();
    if (!products) continue;
    const bool isOfProduct = std::ranges::any_of(*products, [&](const Value& product) {
      return product.string() && *product.string() == installTypeName;
    });
    if (isOfProduct) matching.set(label, entry);
  }
  return matching;
}
