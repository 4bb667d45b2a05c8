// Making services stop.

#include <memory>
#include <utility>
#include <vector>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Supervision/ServiceEnforcement.h"

using namespace platform;

void ServiceEnforcement::enforceShutdownForService(const std::string& label, StopAnswer answer) {
  beginStop(label);
  const ServiceStep step = advance(label, ServiceEvent::kStop);
  if (answer) services_[label].stops.push_back(std::move(answer));
  if (step != ServiceStep::kJoin) remove(label);
}

// The stop is reported before the job is removed, so that its end does not count as a crash.
void ServiceEnforcement::beginStop(const std::string& label) {
  environment_.extensions.forgetExtensionsOf(label);
  if (environment_.health) environment_.health->reportStopForService(label);
  environment_.records.trackServiceForRespawn(label, false);
  environment_.rechecks.forget(label);
}

void ServiceEnforcement::stopForExtension(const std::string& label, StopAnswer answer) {
  if (activityOf(label) != ServiceActivity::kConfiguresExtensions) {
    enforceShutdownForService(label, std::move(answer));
    return;
  }
  beginStop(label);
  services_[label].hasLostItsJob = true;
  removeJobIfAny(label, std::move(answer));
}

void ServiceEnforcement::removeDamaged(const std::string& label) {
  const ServiceStep step = advance(label, ServiceEvent::kProgramIsDamaged);
  if (step == ServiceStep::kIgnore) return;  // It is being removed.
  Service& service = services_[label];
  service.blocks.clear();
  service.request = ++lastRequest_;
  environment_.exits.endSearch(label);
  environment_.jobs.unloadJobFromLaunchD(
      label, [this, label](const auto& removed) { jobIsRemoved(label, removed.has_value()); });
}

// Work on the service that was under way has no result any more.
void ServiceEnforcement::remove(const std::string& label) {
  services_[label].request = ++lastRequest_;
  environment_.exits.endSearch(label);
  removeJobIfAny(label, [this, label](bool hasStopped) { jobIsRemoved(label, hasStopped); });
}

// If the job host does not answer, there may be a job, and only a removal that succeeds ends it.
void ServiceEnforcement::removeJobIfAny(const std::string& label, StopAnswer done) {
  environment_.jobs.copyJob(label,
                            [this, label, done = std::move(done)](const Value& copy) mutable {
                              if (jobStatusIn(copy).presence != JobStatus::Presence::kAbsent) {
                                removeJob(label, std::move(done));
                              } else if (done) {
                                done(true);
                              }
                            });
}

void ServiceEnforcement::removeJob(const std::string& label, StopAnswer done) {
  environment_.jobs.unloadJobFromLaunchD(
      label, [label, done = std::move(done)](const auto& removed) mutable {
        if (removed) {
          vantorlogger2_line(ASL_LEVEL_DEBUG,
                             stringWithFormat("Did enforce shutdown for service: %@", label));
        } else {
          vantorlogger2_line(ASL_LEVEL_ERR,
                             stringWithFormat("Unable to unload %@.\n%@", label, removed.error()));
        }
        if (done) done(removed.has_value());
      });
}

void ServiceEnforcement::jobIsRemoved(const std::string& label, bool hasStopped) {
  const ServiceStep step = advance(label, ServiceEvent::kJobIsRemoved);
  std::vector<StopAnswer> stops = std::exchange(services_[label].stops, {});
  if (step == ServiceStep::kEndAndCheck) {
    check(label);
  } else {
    services_.extract(label);
  }
  for (StopAnswer& answer : stops) answer(hasStopped);
}
