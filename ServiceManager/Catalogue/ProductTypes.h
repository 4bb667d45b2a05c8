#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Value.h"

// Which product is installed, and which services belong to it. Pure; any thread.

struct ProductType {
  std::string_view guid;             // in the product-information file
  std::string_view installTypeName;  // in the catalogue's "Products"
  bool keepsHealthInfo = false;
};

// Compared exactly; null for a GUID of no product.
const ProductType* productTypeForGuid(std::string_view guid);

// Of a catalogue's "Services", those whose "Products" name the product, in the catalogue's order.
platform::Dictionary servicesOfProduct(const platform::Value& services,
                                       std::string_view installTypeName);
