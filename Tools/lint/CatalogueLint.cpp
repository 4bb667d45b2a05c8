#include "Tools/lint/CatalogueLint.h"

#include <algorithm>
#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "Global Settings/GlobalSettingsClient/GlobalSettingsDomains.h"
#include "Platform/Texts/QuotedText.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "ServiceManager/Catalogue/PathComponents.h"
#include "ServiceManager/Catalogue/ProductTypes.h"
#include "ServiceManager/Catalogue/SwitchComparison.h"
#include "Tools/lint/CatalogueShape.h"
#include "Tools/lint/KeyLint.h"
#include "Tools/lint/ServiceLint.h"

namespace lint {
namespace {

using platform::quotedInMessage;
using platform::Value;

std::vector<std::string_view> settingsSources() {
  std::vector<std::string_view> names;
  for (const GlobalSettingsDomain& domain : kGlobalSettingsDomains) names.push_back(domain.prefix);
  return names;
}

void checkPrimary(const Node& root, Findings& findings) {
  const Node primary = childOf(root, catalogue_keys::kPrimary);
  const platform::Dictionary* services = root.value[catalogue_keys::kServices].dictionary();
  if (!primary.value.string() || !services || services->contains(*primary.value.string())) return;
  std::vector<std::string_view> labels;
  for (const auto& [label, entry] : *services) labels.push_back(label);
  findings.atValue(primary, kUndefinedPrimary,
                   fmt::format("there is no service {}{}", quotedInMessage(*primary.value.string()),
                               suggestion(*primary.value.string(), labels)));
}

// Each product that has services must have the primary one.
void checkProductsOfPrimary(const Node& root, Findings& findings) {
  const std::string* label = root.value[catalogue_keys::kPrimary].string();
  const Value& services = root.value[catalogue_keys::kServices];
  if (!label || !services[*label].dictionary()) return;
  const Node primary = childOf(childOf(root, catalogue_keys::kServices), *label);
  for (const ProductType& product : productTypes()) {
    const platform::Dictionary ofProduct = servicesOfProduct(services, product.installTypeName);
    if (ofProduct.empty() || ofProduct.contains(*label)) continue;
    findings.atKey(childOf(primary, catalogue_keys::kProducts), kProductWithoutPrimary,
                   fmt::format("{} has the service {}, but not the primary service {}",
                               product.installTypeName, quotedInMessage(ofProduct.begin()->first),
                               quotedInMessage(*label)));
  }
}

void checkConfiguration(const Node& configuration, Findings& findings) {
  checkShape(configuration, CatalogueScope::kConfiguration, findings);
  const std::vector<std::string_view> known = settingsSources();
  const Node source = childOf(configuration, catalogue_keys::kSource);
  if (const std::string* name = source.value.string();
      name && std::ranges::find(known, *name) == known.end()) {
    findings.atValue(
        source, kUnknownSource,
        fmt::format("there is no settings server {}{}; there are {}", quotedInMessage(*name),
                    suggestion(*name, known), fmt::join(known, ", ")));
  }
  const Node switches = childOf(configuration, catalogue_keys::kSwitches);
  if (!switches.value.dictionary()) return;
  for (const Node& expected : childrenOf(switches)) {
    if (compareSwitch(expected.value, expected.value) == SwitchComparison::kMatches) continue;
    findings.atValue(expected, kUnmatchableSwitch,
                     fmt::format("the switch {} expects {}, which no setting matches",
                                 quotedInMessage(expected.name), typeInWords(expected.value)));
  }
}

void checkDefinedFeatures(const Node& root, const std::set<std::string>& used, Findings& findings) {
  for (const Node& feature : dictionariesOf(root, catalogue_keys::kFeatures)) {
    checkShape(feature, CatalogueScope::kFeature, findings);
    for (const Node& way : dictionariesOf(feature, catalogue_keys::kConfig)) {
      checkConfiguration(way, findings);
    }
    if (used.contains(feature.name)) continue;
    findings.atKey(feature, kUnusedFeature,
                   fmt::format("no service has the feature {}", quotedInMessage(feature.name)));
  }
}

void checkDefinedExtensions(const Node& root, const std::set<std::string>& used,
                            Findings& findings) {
  for (const Node& extension : dictionariesOf(root, catalogue_keys::kKernelExtensions)) {
    checkShape(extension, CatalogueScope::kExtension, findings);
    for (const Node& option : stringsOf(extension, catalogue_keys::kOptions)) {
      if (option.value == Value(catalogue_keys::kSecureOption)) continue;
      findings.atValue(
          option, kUnknownOption,
          fmt::format("the option {} has no meaning; there is only \"{}\"",
                      quotedInMessage(*option.value.string()), catalogue_keys::kSecureOption));
    }
    if (used.contains(extension.name)) continue;
    findings.atKey(
        extension, kUnusedExtension,
        fmt::format("no service needs the extension {}", quotedInMessage(extension.name)));
  }
}

// Why the product can't be told from its file; nothing if it can, or if there is no such folder.
std::optional<std::string> faultOfProductInfo(const Node& root, const Machine& machine) {
  const std::string* folder = root.value[catalogue_keys::kProgramPath].string();
  const std::string* file = root.value[catalogue_keys::kProductInfo].string();
  const std::string* key = root.value[catalogue_keys::kProductInfoKey].string();
  if (!machine.propertyList || !folder || !file || !key) return std::nullopt;
  const std::string path = pathByAppendingComponent(*folder, *file);
  const auto list = machine.propertyList(path);
  if (!list) return std::nullopt;
  if (!*list) return describe(list->error());
  const std::string* guid = (**list)[*key].string();
  if (!guid) return fmt::format("{} has no string {}", path, quotedInMessage(*key));
  if (productTypeForGuid(*guid)) return std::nullopt;
  return fmt::format("{} has the GUID {}, which is that of no product", path,
                     quotedInMessage(*guid));
}

void checkPlaces(const Node& root, const Machine& machine, bool hasForeignPrograms,
                 Findings& findings) {
  const Node programPath = childOf(root, catalogue_keys::kProgramPath);
  const std::string* folder = programPath.value.string();
  if (folder && !folder->starts_with('/')) {
    findings.atValue(programPath, kRelativeProgramPath,
                     fmt::format("{} is no absolute path", quotedInMessage(*folder)));
    return;
  }
  if (hasForeignPrograms) {
    findings.atValue(programPath, kUncheckedPrograms,
                     fmt::format("{} is not on this machine, so the programs were not looked at",
                                 quotedInMessage(*folder)));
  }
  if (const auto fault = faultOfProductInfo(root, machine)) {
    findings.atValue(childOf(root, catalogue_keys::kProductInfo), kUnusableProductInfo, *fault);
  }
}

}  // namespace

void checkCatalogue(const Node& root, const Machine& machine, Findings& findings) {
  checkShape(root, CatalogueScope::kRoot, findings);
  checkPrimary(root, findings);
  checkProductsOfPrimary(root, findings);
  ServiceLint services(root, machine, findings);
  for (const Node& service : dictionariesOf(root, catalogue_keys::kServices)) {
    services.check(service);
  }
  checkDefinedFeatures(root, services.usedFeatures(), findings);
  checkDefinedExtensions(root, services.usedExtensions(), findings);
  checkPlaces(root, machine, services.hasForeignPrograms(), findings);
}

}  // namespace lint
