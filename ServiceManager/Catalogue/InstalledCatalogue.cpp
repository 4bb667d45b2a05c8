#include "ServiceManager/Catalogue/InstalledCatalogue.h"

#include <expected>
#include <string>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogMessageIds.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "ServiceManager/Catalogue/PathComponents.h"

using namespace platform;

namespace {

// A dictionary, or what is wrong with the file.
std::expected<Value, std::string> dictionaryAtPath(FileReader& files, const std::string& path) {
  const auto list = files.propertyListAtPath(path);
  if (!list) return std::unexpected(describe(list.error()));
  if (!list->dictionary()) return std::unexpected(path + ": expected a dictionary");
  return *list;
}

// Why primaryServiceInfo() is nil.
std::string faultOfPrimary(const Value& list) {
  const std::string* primary = list[catalogue_keys::kPrimary].string();
  if (!primary) return "\"Primary\" names no service";
  const Value& entry = list[catalogue_keys::kServices][*primary];
  if (!entry.dictionary())
    return stringWithFormat("\"Services\" has no \"%@\", which is the \"Primary\"", *primary);
  if (!entry[catalogue_keys::kJobSpec].dictionary())
    return stringWithFormat("the primary service \"%@\" has no \"JobSpec\"", *primary);
  if (!entry[catalogue_keys::kJobSpec][catalogue_keys::kProgram].string())
    return stringWithFormat("the \"JobSpec\" of the primary service \"%@\" has no \"Program\"",
                            *primary);
  return "\"ProgramPath\" is missing or no text";
}

std::unexpected<StartUpError> withoutPrimary(std::string cause) {
  vantorlogger2_line(ASL_LEVEL_ERR, cause);
  vantorlogger2_line(ASL_LEVEL_ERR,
                     "Malformed configuration file. Unable to resolve primary service information",
                     {.messageId = kDaemonIdleId});
  return std::unexpected(StartUpError{"Malformed Configuration",
                                      "Unable to resolve primary service information",
                                      std::move(cause)});
}

}  // namespace

StartUpResult<Value> readServicePlist(FileReader& files, std::string_view resourcePath) {
  const std::string path = pathByAppendingComponent(resourcePath, "Service.plist");
  auto list = dictionaryAtPath(files, path);
  if (!list) return withoutPrimary(std::move(list.error()));
  if (primaryServiceInfo(*list).isNil()) return withoutPrimary(path + ": " + faultOfPrimary(*list));
  return *std::move(list);
}

StartUpResult<const ProductType*> readInstalledProduct(FileReader& files,
                                                       const Value& servicePlist) {
  const std::string* programPath = servicePlist[catalogue_keys::kProgramPath].string();
  const std::string* file = servicePlist[catalogue_keys::kProductInfo].string();
  std::expected<Value, std::string> information =
      std::unexpected("\"ProductInfo\" of the catalogue names no file");
  if (programPath && file) {
    information = dictionaryAtPath(files, pathByAppendingComponent(*programPath, *file));
    if (!information) vantorlogger2_line(ASL_LEVEL_DEBUG, information.error());
  }
  if (!information) {
    vantorlogger2_line(ASL_LEVEL_ERR,
                       "Malformed configuration file. Unable to resolve product information",
                       {.messageId = kDaemonIdleId});
    return std::unexpected(StartUpError{"Malformed Configuration",
                                        "Unable to resolve product information",
                                        std::move(information.error())});
  }
  const std::string* key = servicePlist[catalogue_keys::kProductInfoKey].string();
  const std::string* guid = key ? (*information)[*key].string() : nullptr;
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
