#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

using namespace platform;

bool ORBServiceManager::submitJobRequest(const Value& request, std::string_view forDomain,
                                         std::optional<NSError>& requestError) {
  const bool isSystemDomain = forDomain == kSMDomainSystemLaunchd;
  const AuthorizationRef* authorization = isSystemDomain ? authRef_.get() : nullptr;
  if (request.dictionary()) {
    const auto submitted = platform_.jobs.SMJobSubmit(forDomain, request, authorization);
    if (submitted) return true;
    requestError = submitted.error();
    vantorlogger2_line(ASL_LEVEL_ERR, stringWithFormat("Unable to submit job:\n%@ Error: %@",
                                                       request, submitted.error()));
    return false;
  }
  if (const std::string* label = request.string()) {
    const auto removed = platform_.jobs.SMJobRemove(forDomain, *label, authorization, true);
    if (removed) return true;
    requestError = removed.error();
    vantorlogger2_line(ASL_LEVEL_ERR,
                       stringWithFormat("Unable to remove job: %@\n:%@", *label, removed.error()));
  }
  return false;
}

bool ORBServiceManager::unloadJobFromLaunchD(std::string_view label) {
  const auto removed =
      platform_.jobs.SMJobRemove(kSMDomainSystemLaunchd, label, authRef_.get(), true);
  if (removed) return true;
  vantorlogger2_line(ASL_LEVEL_ERR,
                     stringWithFormat("Unable to remove job: %@\n:%@", label, removed.error()));
  return false;
}

Value ORBServiceManager::copyJobDictionary(std::string_view label) const {
  return platform_.jobs.SMJobCopyDictionary(kSMDomainSystemLaunchd, label);
}
