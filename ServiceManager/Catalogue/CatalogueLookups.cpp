#include "ServiceManager/Catalogue/CatalogueLookups.h"

#include <string>

#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "ServiceManager/Catalogue/PathComponents.h"

using namespace platform;

namespace {

Value entryOf(const Value& entries, Label name) {
  if (!name) return {};
  const Value& found = entries[*name];
  return found.dictionary() ? found : Value();
}

}  // namespace

Dictionary defaultJobInfoTemplate() {
  return {
      {"KeepAlive", true}, {"StandardOutPath", "/dev/null"}, {"StandardErrorPath", "/dev/null"}};
}

Value serviceEntryWithLabel(Label label, const Value& inServicePlist) {
  return entryOf(inServicePlist[catalogue_keys::kServices], label);
}

Value featureEntryWithFeatureName(Label featureName, const Value& inServicePlist) {
  return entryOf(inServicePlist[catalogue_keys::kFeatures], featureName);
}

Value jobInfoWithLabel(Label label, const Value& inServicePlist) {
  const Value jobSpec = serviceEntryWithLabel(label, inServicePlist)[catalogue_keys::kJobSpec];
  const std::string* program = jobSpec[catalogue_keys::kProgram].string();
  const std::string* programPath = inServicePlist[catalogue_keys::kProgramPath].string();
  if (!jobSpec.dictionary() || !program || !programPath || !label) return {};

  Dictionary job = *jobSpec.dictionary();
  // On top, so that a service can't opt out of being kept alive.
  for (const auto& [key, value] : defaultJobInfoTemplate()) job.set(key, value);
  job.set("Label", *label);
  job.set(catalogue_keys::kProgram, pathByAppendingComponent(*programPath, *program));
  return job;
}

std::string_view serviceTypeForLabel(Label label, const Value& inServicePlist) {
  // The value may be malformed: any "Features" makes it a feature service.
  const bool hasFeatures =
      !serviceEntryWithLabel(label, inServicePlist)[catalogue_keys::kFeatures].isNil();
  return hasFeatures ? kFeatureService : kCoreService;
}

Value primaryServiceInfo(const Value& inServicePlist) {
  const std::string* primary = inServicePlist[catalogue_keys::kPrimary].string();
  return jobInfoWithLabel(primary ? Label(*primary) : std::nullopt, inServicePlist);
}
