#pragma once

#include <expected>
#include <string>
#include <string_view>

#include "Platform/Files/FileReader.h"
#include "ServiceManager/Catalogue/ProductTypes.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"

// The steps from the files of an installation to the catalogue of its product. Each failure is
// logged where it is found, and returned as the text that is announced to the product.

// Why the daemon can't go on, in the words of the announcement.
struct StartUpError {
  std::string error;
  std::string description;
  std::string cause = {};  // for the operator: the file, and what is wrong in it; may be empty
};
template <typename T>
using StartUpResult = std::expected<T, StartUpError>;

// Service.plist of the daemon's bundle, which has a primary service with a job. Blocks on the disk.
StartUpResult<platform::Value> readServicePlist(platform::FileReader& files,
                                                std::string_view resourcePath);

// The type of the product whose information file the catalogue names; never null. Blocks on the
// disk.
StartUpResult<const ProductType*> readInstalledProduct(platform::FileReader& files,
                                                       const platform::Value& servicePlist);

// The part of the catalogue that belongs to the product, which has one service at least. Pure but
// for the log.
StartUpResult<ServiceCatalogue> catalogueOfProduct(const platform::Value& servicePlist,
                                                   std::string_view installTypeName);
