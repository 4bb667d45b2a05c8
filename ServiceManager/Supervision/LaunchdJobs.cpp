#include "ServiceManager/Supervision/LaunchdJobs.h"

#include <algorithm>
#include <array>
#include <string>
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
                  [this, isAlive = std::weak_ptr(isAlive_), label,
                   done = std::move(done)](std::expected<void, NSError> removed) mutable {
                    if (isAlive.expired()) return;
                    if (removed) {
                      update(label, Value());
                    } else {
                      vantorlogger2_line(ASL_LEVEL_ERR,
                                         stringWithFormat("Unable to remove job: %@\n:%@", label,
                                                          removed.error()));
                      refresh(label);
                    }
                    done(std::move(removed));
                  });
}

void LaunchdJobs::copyJob(std::string_view label, Jobs::Copied copied) {
  jobs_.copyJob(kSMDomainSystemLaunchd, label,
                [this, isAlive = std::weak_ptr(isAlive_), label = std::string(label),
                 copied = std::move(copied)](Value copy) mutable {
                  if (isAlive.expired()) return;
                  update(label, copy);
                  copied(std::move(copy));
                });
}

// A job host counts from its start on. If it has been restarted, all counts are new.
void LaunchdJobs::update(std::string_view label, const Value& copy) {
  const auto before = known_.find(label).history;
  hasChanged(known_.update(label, copy));
  const auto now = known_.find(label).history;
  if (before && now && before->since != now->since) refreshAll();
  if (!isJobUnknown(copy)) completeRefresh();
}

void LaunchdJobs::hasChanged(bool isChange) const {
  if (isChange && onChange_) onChange_();
}

// The answer that is under way may be older than the event for which it is asked again.
void LaunchdJobs::refresh(const std::string& label) {
  const auto [refresh, isNew] = refreshes_.try_emplace(label, false);
  if (!isNew) {
    refresh->second = true;
    return;
  }
  copyJob(label, [this, label](const Value&) {
    const bool isAskedAgain = refreshes_.extract(label).mapped();
    if (isAskedAgain) this->refresh(label);
  });
}

// Each copied job of a restarted host asks for this, so a call must not restart the round.
void LaunchdJobs::refreshAll() {
  if (isRefreshingAll_) {
    isAnotherRoundDue_ = true;
    return;
  }
  isRefreshingAll_ = true;
  isRoundMissing_ = false;
  refreshAfter("");
}

// The return of a host is noticed only if it counted as hung or absent, and not if it was slow.
void LaunchdJobs::completeRefresh() {
  if (isRoundMissing_) refreshAll();
}

void LaunchdJobs::refreshAfter(const std::string& label) {
  jobs_.copyStatesAfter(label,
                        [this, isAlive = std::weak_ptr(isAlive_), label](const Value& states) {
                          if (!isAlive.expired()) pageHasCome(label, states);
                        });
}

void LaunchdJobs::pageHasCome(const std::string& after, const Value& states) {
  const Dictionary* page = states.dictionary();
  if (!page) return roundHasEnded(false);
  hasChanged(known_.updatePage(after, *page));
  std::string last = after;
  for (const auto& [next, state] : *page) last = std::max(last, next);
  if (last > after) return refreshAfter(last);
  roundHasEnded(true);
}

void LaunchdJobs::roundHasEnded(bool isComplete) {
  isRefreshingAll_ = false;
  isRoundMissing_ = !isComplete;
  if (std::exchange(isAnotherRoundDue_, false)) refreshAll();
}

void LaunchdJobs::processEnded(const std::string& label, ProcessId process) {
  hasChanged(known_.processEnded(label, process));
  refresh(label);
}
