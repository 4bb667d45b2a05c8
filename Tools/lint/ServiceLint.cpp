#include "Tools/lint/ServiceLint.h"

#include <algorithm>
#include <string>
#include <string_view>
#include <vector>

#include <fmt/format.h>
#include <fmt/ranges.h>

#include "JobHost/Definitions/JobDefinition.h"
#include "Platform/Texts/QuotedText.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "ServiceManager/Catalogue/CatalogueLookups.h"
#include "ServiceManager/Catalogue/FeatureSwitches.h"
#include "ServiceManager/Catalogue/MinimumOSVersion.h"
#include "ServiceManager/Catalogue/ProductTypes.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "Tools/lint/CatalogueShape.h"
#include "Tools/lint/JobLint.h"
#include "Tools/lint/KeyLint.h"

namespace lint {
namespace {

using platform::quotedInMessage;
using platform::Value;

std::vector<std::string_view> productNames() {
  std::vector<std::string_view> names;
  for (const ProductType& product : productTypes()) names.push_back(product.installTypeName);
  return names;
}

// Whether a product has both services, and which of the two kinds of products counts.
enum class Products { kAll, kWithHealthRecord };
bool shareProduct(const Node& one, const Node& other, Products which) {
  return std::ranges::any_of(productTypes(), [&](const ProductType& product) {
    if (which == Products::kWithHealthRecord && !product.keepsHealthInfo) return false;
    const Value name(product.installTypeName);
    const auto has = [&](const Node& service) {
      const platform::Array* products = service.value[catalogue_keys::kProducts].array();
      return products && std::ranges::find(*products, name) != products->end();
    };
    return has(one) && has(other);
  });
}

}  // namespace

ServiceLint::ServiceLint(const Node& root, const Machine& machine, Findings& findings)
    : root_(root), machine_(machine), findings_(findings) {}

void ServiceLint::check(const Node& service) {
  checkShape(service, CatalogueScope::kService, findings_);
  checkProducts(service);
  checkRelease(service);
  checkExtensions(service);
  checkFeatures(service);
  checkJobOf(service);
  checkSharedNames(service);
}

bool ServiceLint::isPrimary(const Node& service) const {
  return root_.value[catalogue_keys::kPrimary] == Value(service.name);
}

bool ServiceLint::isDefined(std::string_view name, std::string_view key) const {
  return !root_.value[key][name].isNil();
}

std::string ServiceLint::suggestionOf(std::string_view name, std::string_view key) const {
  const platform::Dictionary* entries = root_.value[key].dictionary();
  if (!entries || findings_.areFull()) return "";
  std::vector<std::string_view> known;
  for (const auto& [defined, entry] : *entries) known.push_back(defined);
  return suggestion(name, known);
}

void ServiceLint::checkProducts(const Node& service) {
  const Value& products = service.value[catalogue_keys::kProducts];
  if (products.isNil() || (products.array() && products.array()->empty())) {
    findings_.atKey(
        service, kServiceOfNoProduct,
        fmt::format("{} belongs to no product, so it never runs", quotedInMessage(service.name)));
  }
  const std::vector<std::string_view> known = productNames();
  for (const Node& product : stringsOf(service, catalogue_keys::kProducts)) {
    const std::string& name = *product.value.string();
    if (std::ranges::find(known, name) != known.end()) continue;
    findings_.atValue(
        product, kUnknownProduct,
        fmt::format("there is no product {}{}", quotedInMessage(name), suggestion(name, known)));
  }
}

void ServiceLint::checkRelease(const Node& service) {
  const Node release = childOf(service, catalogue_keys::kMinimumOSVersion);
  if (!release.value.string() || kernelMajorNumberForMinimumOSVersion(release.value)) return;
  findings_.atValue(
      release, kUnknownRelease,
      fmt::format("release {} is not known, so {} never runs; known are {}",
                  quotedInMessage(*release.value.string()), quotedInMessage(service.name),
                  fmt::join(knownMinimumOSVersions(), ", ")));
}

void ServiceLint::checkExtensions(const Node& service) {
  for (const Node& extension : stringsOf(service, catalogue_keys::kKernelExtensions)) {
    const std::string& name = *extension.value.string();
    usedExtensions_.insert(name);
    if (isDefined(name, catalogue_keys::kKernelExtensions)) continue;
    findings_.atValue(
        extension, kUndefinedExtension,
        fmt::format("no extension {} is defined{}, so {} never runs", quotedInMessage(name),
                    suggestionOf(name, catalogue_keys::kKernelExtensions),
                    quotedInMessage(service.name)));
  }
}

void ServiceLint::checkFeatures(const Node& service) {
  const Node features = childOf(service, catalogue_keys::kFeatures);
  if (features.value.isNil()) return;
  bool areDefined = true;
  for (const Node& feature : stringsOf(service, catalogue_keys::kFeatures)) {
    const std::string& name = *feature.value.string();
    usedFeatures_.insert(name);
    if (isDefined(name, catalogue_keys::kFeatures)) continue;
    areDefined = false;
    findings_.atValue(feature, kUndefinedFeature,
                      fmt::format("no feature {} is defined{}", quotedInMessage(name),
                                  suggestionOf(name, catalogue_keys::kFeatures)));
  }
  if (isPrimary(service)) {
    findings_.atKey(features, kConditionalPrimary,
                    "the primary service runs whatever its \"Features\" are");
    return;
  }
  const auto configurations = featureConfigurations(ServiceCatalogue(root_.value), service.name);
  const bool hasSwitch =
      configurations &&
      std::ranges::any_of(*configurations, [](const auto& way) { return !way.switches.empty(); });
  if (configurations && areDefined && !hasSwitch) {
    findings_.atKey(features, kNoSwitchCanStartIt,
                    fmt::format("no switch can start {}", quotedInMessage(service.name)));
  }
  if (service.value[catalogue_keys::kNotification].isNil()) {
    findings_.atKey(service, kFeatureServiceWithoutNotification,
                    fmt::format("the feature service {} has no \"Notification\"",
                                quotedInMessage(service.name)));
  }
}

void ServiceLint::checkJobOf(const Node& service) {
  const Node jobSpec = childOf(service, catalogue_keys::kJobSpec);
  const bool hasProgram =
      jobSpec.value.dictionary() && jobSpec.value[catalogue_keys::kProgram].string();
  if (!hasProgram) {
    const std::string_view missing =
        jobSpec.value.dictionary() ? catalogue_keys::kProgram : catalogue_keys::kJobSpec;
    findings_.atKey(
        service, isPrimary(service) ? kPrimaryWithoutJob : kServiceWithoutJob,
        fmt::format("{} has no \"{}\" of the right type, so {}", quotedInMessage(service.name),
                    missing,
                    isPrimary(service) ? "the service manager stays idle" : "it is never started"));
  }
  if (!jobSpec.value.dictionary()) return;
  const Node program = childOf(jobSpec, catalogue_keys::kProgram);
  if (hasProgram && program.value.string()->starts_with('/')) {
    findings_.atValue(
        program, kAbsoluteProgram,
        fmt::format("{} is joined to \"ProgramPath\", although it begins with a slash",
                    quotedInMessage(*program.value.string())));
  }
  checkReplacedKeys(service, jobSpec);
  std::vector<std::string_view> replaced{catalogue_keys::kProgram, "Label"};
  const platform::Dictionary defaults = defaultJobInfoTemplate();
  for (const auto& [key, value] : defaults) replaced.push_back(key);
  const bool areAccepted = checkJobKeys(jobSpec, replaced, findings_);
  const Value job = jobInfoWithLabel(service.name, root_.value);
  const std::string* path = job["Program"].string();
  if (!areAccepted || !path || !path->starts_with('/')) return;
  if (const auto definition = jobhost::parseJobDefinition(job); !definition) {
    findings_.atKey(jobSpec, kUnusableJob, faultOfJob(definition.error()));
    return;
  }
  if (!checkProgram(program, *path, true, machine_, findings_)) hasForeignPrograms_ = true;
}

void ServiceLint::checkReplacedKeys(const Node& service, const Node& jobSpec) {
  platform::Dictionary forced = defaultJobInfoTemplate();
  forced.set("Label", service.name);
  for (const auto& [key, value] : forced) {
    const Node given = childOf(jobSpec, key);
    if (given.value.isNil() || given.value == value) continue;
    findings_.atKey(given, kReplacedJobKey,
                    fmt::format("\"{}\" has no effect: the service manager replaces it", key));
  }
}

void ServiceLint::checkSharedNames(const Node& service) {
  const Node notification = childOf(service, catalogue_keys::kNotification);
  if (const std::string* name = notification.value.string()) {
    checkShared(service, notification, *name, notifications_, kSharedNotification, "notification");
  }
  const Node jobSpec = childOf(service, catalogue_keys::kJobSpec);
  const Node machServices = childOf(jobSpec, "MachServices");
  if (machServices.value.dictionary()) {
    for (const Node& machService : childrenOf(machServices)) {
      checkShared(service, machService, machService.name, machServices_, kSharedMachService,
                  "Mach service");
    }
  }
  const std::vector<Node> arguments = stringsOf(jobSpec, "ProgramArguments");
  if (!arguments.empty()) {
    checkShared(service, arguments.front(), *arguments.front().value.string(), healthNames_,
                kSharedHealthName, "first argument");
  }
}

void ServiceLint::checkShared(const Node& service, const Node& at, std::string_view name,
                              FirstUsers& users, std::string_view code, std::string_view what) {
  const auto [first, isNew] = users.try_emplace(std::string(name), service);
  const Products which = code == kSharedHealthName ? Products::kWithHealthRecord : Products::kAll;
  if (isNew || !shareProduct(first->second, service, which)) return;
  findings_.atValue(at, code,
                    fmt::format("{} has the same {} {} as {}", quotedInMessage(service.name), what,
                                quotedInMessage(name), quotedInMessage(first->second.name)));
}

}  // namespace lint
