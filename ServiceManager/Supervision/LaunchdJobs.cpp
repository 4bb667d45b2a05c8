#include "ServiceManager/Supervision/LaunchdJobs.h"

#include <array>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"

using namespace platform;

namespace {

OSStatus copyRights(Authorization& authorization, AuthorizationRef& reference) {
  constexpr std::array<std::string_view, 1> kRights{kSMRightModifySystemDaemons};
  return authorization.AuthorizationCopyRights(
      reference, kRights, kAuthorizationFlagExtendRights | kAuthorizationFlagPreAuthorize);
}

}  // namespace

void LaunchdJobs::acquireRights(const Perform& onWorker, const Perform& onMain, Acquired acquired) {
  onWorker([this, isAlive = std::weak_ptr(isAlive_), &authorization = authorization_, onMain,
            acquired = std::move(acquired)]() mutable {
    auto created = authorization.AuthorizationCreate(kAuthorizationFlagDefaults);
    auto reference = created ? std::move(*created) : nullptr;
    const OSStatus status =
        reference ? copyRights(authorization, *reference) : errAuthorizationSuccess;
    onMain([this, isAlive, reference = std::move(reference), status,
            acquired = std::move(acquired)]() mutable {
      if (isAlive.expired()) return;
      authRef_ = std::move(reference);
      acquired(status);
    });
  });
}

void LaunchdJobs::submitJobRequest(const Value& request, std::string_view forDomain, Done done) {
  const bool isSystemDomain = forDomain == kSMDomainSystemLaunchd;
  const AuthorizationRef* authorization = isSystemDomain ? authRef_.get() : nullptr;
  if (request.dictionary()) {
    jobs_.submitJob(forDomain, request, authorization,
                    [this, isAlive = std::weak_ptr(isAlive_), request,
                     done = std::move(done)](std::expected<void, NSError> submitted) mutable {
                      if (isAlive.expired()) return;
                      noteSubmission(request, submitted);
                      if (submitted) return done({});
                      done(std::unexpected(std::move(submitted.error())));
                    });
  } else if (const std::string* label = request.string()) {
    remove(forDomain, *label, authorization,
           [done = std::move(done)](std::expected<void, NSError> removed) mutable {
             if (removed) return done({});
             done(std::unexpected(std::move(removed.error())));
           });
  } else {
    done(std::unexpected(std::nullopt));
  }
}

// A full job host refuses thousands of jobs, and refuses them again at each retry. Only the first
// refusal is logged, until it accepts a job again.
void LaunchdJobs::noteSubmission(const Value& request,
                                 const std::expected<void, NSError>& outcome) {
  const bool isFull =
      !outcome && outcome.error().code == static_cast<int>(LaunchdError::kHostIsFull);
  const bool wasFull = std::exchange(isHostFull_, isFull || (isHostFull_ && !outcome));
  if (outcome || (isFull && wasFull)) return;
  vantorlogger2_line(ASL_LEVEL_ERR, stringWithFormat("Unable to submit job:\n%@ Error: %@", request,
                                                     outcome.error()));
}

void LaunchdJobs::unloadJobFromLaunchD(const std::string& label, Removed done) {
  remove(kSMDomainSystemLaunchd, label, authRef_.get(), std::move(done));
}

void LaunchdJobs::remove(std::string_view domain, const std::string& label,
                         const AuthorizationRef* authorization, Removed done) {
  jobs_.removeJob(domain, label, authorization,
                  [isAlive = std::weak_ptr(isAlive_), label,
                   done = std::move(done)](std::expected<void, NSError> removed) mutable {
                    if (isAlive.expired()) return;
                    if (!removed) {
                      vantorlogger2_line(ASL_LEVEL_ERR,
                                         stringWithFormat("Unable to remove job: %@\n:%@", label,
                                                          removed.error()));
                    }
                    done(std::move(removed));
                  });
}

void LaunchdJobs::copyJob(std::string_view label, Jobs::Copied copied) const {
  jobs_.copyJob(
      kSMDomainSystemLaunchd, label,
      [isAlive = std::weak_ptr(isAlive_), copied = std::move(copied)](Value copy) mutable {
        if (!isAlive.expired()) copied(std::move(copy));
      });
}
