#include <string>

#include "ServiceManager/ServiceManager/ORBServiceManager.h"
#include "ServiceManager/ServiceManager/PathComponents.h"

using namespace platform;

namespace {

Value entry(const Value& entries, ORBServiceManager::Label name) {
  if (!name) return {};
  const Value& found = entries[*name];
  return found.dictionary() ? found : Value();
}

}  // namespace

Dictionary ORBServiceManager::defaultJobInfoTemplate() {
  return {
      {"KeepAlive", true}, {"StandardOutPath", "/dev/null"}, {"StandardErrorPath", "/dev/null"}};
}

Value ORBServiceManager::serviceEntryWithLabel(Label label, const Value& inServicePlist) {
  return entry(inServicePlist["Services"], label);
}

Value ORBServiceManager::featureEntryWithFeatureName(Label featureName,
                                                     const Value& inServicePlist) {
  return entry(inServicePlist["Features"], featureName);
}

Value ORBServiceManager::jobInfoWithLabel(Label label, const Value& inServicePlist) {
  const Value jobSpec = serviceEntryWithLabel(label, inServicePlist)["JobSpec"];
  const std::string* program = jobSpec["Program"].string();
  const std::string* programPath = inServicePlist["ProgramPath"].string();
  if (!jobSpec.dictionary() || !program || !programPath || !label) return {};

  Dictionary job = *jobSpec.dictionary();
  // On top, so that a service can't opt out of being kept alive.
  for (const auto& [key, value] : defaultJobInfoTemplate()) job.set(key, value);
  job.set("Label", *label);
  job.set("Program", pathByAppendingComponent(*programPath, *program));
  for (const char* key : {"UserName", "WorkingDirectory"}) {
    if (const std::string* text = jobSpec[key].string()) job.set(key, *text);
  }
  return job;
}

std::string_view ORBServiceManager::serviceTypeForLabel(Label label, const Value& inServicePlist) {
  // What the features are does not matter here, only that there are any.
  const bool hasFeatures = !serviceEntryWithLabel(label, inServicePlist)["Features"].isNil();
  return hasFeatures ? kFeatureService : kCoreService;
}

Value ORBServiceManager::primaryServiceInfo(const Value& inServicePlist) {
  const std::string* primary = inServicePlist["Primary"].string();
  return jobInfoWithLabel(primary ? Label(*primary) : std::nullopt, inServicePlist);
}
