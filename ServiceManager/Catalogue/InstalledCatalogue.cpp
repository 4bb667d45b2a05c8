#include "ServiceManager/Catalogue/InstalledCatalogue.h"

#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogMessageIds.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "ServiceManager/Catalogue/PathComponents.h"

using namespace platform;

namespace {

// A dictionary, or nil; the log has the reason.
Value dictionaryAtPath(FileReader& files, const std::string& path) {
  const auto list = files.propertyListAtPath(path);
  if (list && list->dictionary()) return *list;
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     list ? path + ": expected a dictionary" : describe(list.error()));
  return {};
}

}  // namespace

StartUpResult<Value> readServicePlist(FileReader& files, std::string_view resourcePath) {
  Value list = dictionaryAtPath(files, pathByAppendingComponent(resourcePath, "Service.plist"));
  if (!primaryServiceInfo(list).isNil()) return list;
  vantorlogger2_line(ASL_LEVEL_ERR,
                     "Malformed configuration file. Unable to resolve primary service information",
                     {.messageId = kDaemonIdleId});
  return std::unexpected(
      StartUpError{"Malformed Configuration", "Unable to resolve primary service information"});
}

StartUpResult<const ProductType*> readInstalledProduct(FileReader& files,
                                                       const Value& servicePlist) {
  const std::string* programPath = servicePlist[catalogue_keys::kProgramPath].string();
  const std::string* file = servicePlist[catalogue_keys::kProductInfo].string();
  const Value information =
      programPath && file ? dictionaryAtPath(files, pathByAppendingComponent(*programPath, *file))
                          : Value();
  if (information.isNil()) {
    vantorlogger2_line(ASL_LEVEL_ERR,
                       "Malformed configuration file. Unable to resolve product information",
                       {.messageId = kDaemonIdleId});
    return std::unexpected(
        StartUpError{"Malformed Configuration", "Unable to resolve product information"});
  }
  const std::string* key = servicePlist[catalogue_keys::kProductInfoKey].string();
  const std::string* guid = key ? information[*key].string() : nullptr;
  if (const ProductType* type = guid ? productTypeForGuid(*guid) : nullptr) return type;
  vantorlogger2_line(ASL_LEVEL_ERR, "Uknown product type. Unable to resolve GUID",
                     {.messageId = kDaemonIdleId});
  return std::unexpected(StartUpError{"Unkown product type", "Unable to resolve GUID"});
}

StartUpResult<ServiceCatalogue> catalogueOfProduct(const Value& servicePlist,
                                                   std::string_view installTypeName) {
  Dictionary matching = servicesOfProduct(servicePlist[catalogue_keys::kServices], installTypeName);
  if (matching.empty()) {
    const std::string why = stringWithFormat(
        "Unable to resolve services that match the current product: %@", installTypeName);
    vantorlogger2_line(ASL_LEVEL_ERR, stringWithFormat("Cannot resolve product services. %@", why),
                       {.messageId = kDaemonIdleId});
    return std::unexpected(StartUpError{"Uknown product type", why});
  }
  const std::string* primary = servicePlist[catalogue_keys::kPrimary].string();
  if (primary && !matching.contains(*primary)) {
    vantorlogger2_line(ASL_LEVEL_ERR,
                       stringWithFormat("The primary service %@ does not belong to the current "
                                        "product: %@. No service is evaluated",
                                        *primary, installTypeName));
  }
  Dictionary others;
  for (const auto& [label, entry] : *servicePlist[catalogue_keys::kServices].dictionary()) {
    if (!matching.contains(label)) others.set(label, entry[catalogue_keys::kProducts]);
  }
  Dictionary ofProduct = *servicePlist.dictionary();
  ofProduct.set(catalogue_keys::kServices, std::move(matching));
  return ServiceCatalogue(std::move(ofProduct), std::move(others));
}
