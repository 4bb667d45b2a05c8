#include "ServiceManager/Supervision/LaunchdJobs.h"

#include <array>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"

using namespace platform;

OSStatus LaunchdJobs::acquireRights() {
  auto created = authorization_.AuthorizationCreate(kAuthorizationFlagDefaults);
  if (!created) return errAuthorizationSuccess;
  authRef_ = std::move(*created);
  constexpr std::array<std::string_view, 1> kRights{kSMRightModifySystemDaemons};
  return authorization_.AuthorizationCopyRights(
      *authRef_, kRights, kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize);
}

bool LaunchdJobs::submitJobRequest(const Value& request, std::string_view forDomain,
                                   std::optional<NSError>& requestError) {
  const bool isSystemDomain = forDomain == kSMDomainSystemLaunchd;
  const AuthorizationRef* authorization = isSystemDomain ? authRef_.get() : nullptr;
  if (request.dictionary()) {
    const auto submitted = jobs_.SMJobSubmit(forDomain, request, authorization);
    if (submitted) return true;
    requestError = submitted.error();
    vantorlogger2_line(ASL_LEVEL_ERR, stringWithFormat("Unable to submit job:\n%@ Error: %@",
                                                       request, submitted.error()));
    return false;
  }
  if (const std::string* label = request.string()) {
    const auto removed = jobs_.SMJobRemove(forDomain, *label, authorization, true);
    if (removed) return true;
    requestError = removed.error();
    vantorlogger2_line(ASL_LEVEL_ERR,
                       stringWithFormat("Unable to remove job: %@\n:%@", *label, removed.error()));
  }
  return false;
}

void LaunchdJobs::unloadJobFromLaunchD(const std::string& label, Removed done) {
  jobs_.removeJob(kSMDomainSystemLaunchd, label, authRef_.get(),
                  [label, done = std::move(done)](std::expected<void, NSError> removed) mutable {
                    if (!removed) {
                      vantorlogger2_line(ASL_LEVEL_ERR,
                                         stringWithFormat("Unable to remove job: %@\n:%@", label,
                                                          removed.error()));
                    }
                    done(std::move(removed));
                  });
}

Value LaunchdJobs::copyJobDictionary(std::string_view label) const {
  return jobs_.SMJobCopyDictionary(kSMDomainSystemLaunchd, label);
}

JobStatus LaunchdJobs::status(std::string_view label) const {
  return jobStatusIn(copyJobDictionary(label));
}
