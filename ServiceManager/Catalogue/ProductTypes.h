#pragma once

#include <span>
#include <string_view>

#include "Platform/Values/Value.h"

// The products, and the services that belong to each. Pure; any thread.

struct ProductType {
  std::string_view guid;             // in the product-information file
  std::string_view installTypeName;  // in the catalogue's "Products"
  bool keepsHealthInfo = false;
};

// All of them.
std::span<const ProductType> productTypes();

// The product whose GUID is exactly this one, or null.
const ProductType* productTypeForGuid(std::string_view guid);

// The entries of a catalogue's "Services" whose "Products" name the product, in the catalogue's
// order.
platform::Dictionary servicesOfProduct(const platform::Value& services,
                                       std::string_view installTypeName);
