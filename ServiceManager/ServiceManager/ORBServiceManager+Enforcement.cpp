#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "ServiceManager/ServiceManager/MonitoringRecord.h"
#include "ServiceManager/ServiceManager/ORBServiceManager.h"

using namespace platform;

namespace {

void logDamagedProgram(std::string_view label) {
  vantorlogger2_line(ASL_LEVEL_WARNING,
                     stringWithFormat("Program file for %@ appears to be damaged", label));
}

std::int64_t processIn(const Value& jobDictionary) {
  return jobDictionary["PID"].integer().value_or(0);
}

}  // namespace

Value ORBServiceManager::launchService(const std::string& label, bool firstTime) {
  const Value job = jobInfoWithLabel(label, serviceInfo_);
  if (job.isNil()) return {};
  if (!platform_.files.fileExistsAtPath(*job["Program"].string())) {
    vantorlogger2_line(ASL_LEVEL_WARNING,
                       stringWithFormat("Cannot find program path for service: %@", label));
    return {};
  }
  if (!isProgramSound(job)) {
    logDamagedProgram(label);
    if (!firstTime) unloadJobFromLaunchD(label);
    return {};
  }
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Starting up service %@", label));
  if (!startAssociatedSystemExtensions(label)) {
    vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Failed to load kext for %@", label));
    return {};
  }
  std::optional<NSError> error;
  if (submitJobRequest(job, kSMDomainSystemLaunchd, error)) return copyJobDictionary(label);
  vantorlogger2_line(ASL_LEVEL_ERR,
                     stringWithFormat("Unable to load %@.\n%@", label, error.value_or(NSError{})));
  return {};
}

bool ORBServiceManager::isProgramSound(const Value& jobInfo) const {
  return validator_.validateProgram(*jobInfo["Program"].string()).isIntact;
}

void ORBServiceManager::enforceRunningForService(Label label, CompletionBlock withCompletionBlock) {
  if (!label) return;
  const std::string service(*label);
  const Value jobInfo = jobInfoWithLabel(service, serviceInfo_);
  if (jobInfo.isNil()) return;
  const Value known = copyJobDictionary(service);
  if (!checkOSSupportForService(service)) {
    if (healthInfo_) healthInfo_->stopMonitoringForService(service);
    return;
  }
  const bool isRunning = !known["PID"].isNil();
  const auto job = isRunning ? checkRunningService(service, jobInfo, known)
                             : startStoppedService(service, known);
  if (!job) return;
  const bool retry = !job->dictionary["LastExitStatus"].isNil() && processIn(job->dictionary) <= 0;
  const bool isWatched = monitorJobWithIdentifier(service, retry);
  if (healthInfo_) {
    if (isWatched && job->extensionsAreConfigured) {
      healthInfo_->reportStartForService(service);
    } else {
      healthInfo_->reportUnreadyStateForService(service);
    }
  }
  if (withCompletionBlock) withCompletionBlock();
}

std::optional<ORBServiceManager::EnforcedJob> ORBServiceManager::checkRunningService(
    const std::string& label, const Value& jobInfo, const Value& known) {
  if (!platform_.files.fileExistsAtPath(*jobInfo["Program"].string()) || !isProgramSound(jobInfo)) {
    logDamagedProgram(label);
    if (healthInfo_) healthInfo_->reportUnreadyStateForService(label);
    unloadJobFromLaunchD(label);
    return std::nullopt;
  }
  vantorlogger2_line(
      ASL_LEVEL_DEBUG,
      "Configure and if necessary start any kexts which are associated with the already running "
      "service");
  const bool areConfigured = startAssociatedSystemExtensions(label);
  if (!areConfigured) {
    vantorlogger2_line(
        ASL_LEVEL_DEBUG,
        stringWithFormat("Failed to configure kext for already running service %@", label));
  }
  return EnforcedJob{known, areConfigured};
}

std::optional<ORBServiceManager::EnforcedJob> ORBServiceManager::startStoppedService(
    const std::string& label, const Value& known) {
  const Value& lastExitStatus = known["LastExitStatus"];
  const std::string suffix =
      lastExitStatus.isNil() ? std::string() : stringWithFormat(" %@", lastExitStatus);
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("Service %@ is not running%@", label, suffix));
  Value launched = launchService(label, known.isNil());
  // Of a job host that went away meanwhile there is no process to wait for.
  if (launched.isNil() || isJobUnknown(launched)) {
    if (healthInfo_) healthInfo_->reportUnreadyStateForService(label);
    return std::nullopt;
  }
  return EnforcedJob{std::move(launched), true};
}

bool ORBServiceManager::enforceShutdownForService(Label label) {
  if (!label) return true;  // There is no such job.
  const Value entry = serviceEntryWithLabel(label, serviceInfo_);
  if (const Array* kexts = entry["KernelExtensions"].array()) {
    // They stay loaded, and are configured again with the next start.
    for (const Value& kext : *kexts) {
      if (kext.string()) kextsLoaded_.erase(*kext.string());
    }
  }
  // Before the job goes, so that its end does not count as a crash.
  if (healthInfo_) healthInfo_->reportStopForService(*label);
  trackServiceForRespawn(label, false);
  // Where the job host can't tell there may be a job, and only a removal that succeeds ends it.
  if (copyJobDictionary(*label).isNil()) return true;
  std::optional<NSError> error;
  if (submitJobRequest(Value(*label), kSMDomainSystemLaunchd, error)) {
    vantorlogger2_line(ASL_LEVEL_DEBUG,
                       stringWithFormat("Did enforce shutdown for service: %@", *label));
    return true;
  }
  vantorlogger2_line(ASL_LEVEL_ERR, stringWithFormat("Unable to unload %@.\n%@", *label,
                                                     error.value_or(NSError{})));
  return false;
}

bool ORBServiceManager::isTracked(Label label, std::string_view mark) const {
  return label && monitoredProcessesInfo_[*label][mark].boolean() == true;
}

void ORBServiceManager::track(Label label, std::string_view mark, bool flag) {
  if (!label || !monitoredProcessesInfo_.contains(*label)) return;
  monitoredProcessesInfo_.set(
      *label, monitoringRecordBySetting(monitoredProcessesInfo_[*label], mark, flag));
}

void ORBServiceManager::trackServiceForRespawn(Label label, bool flag) {
  track(label, kMonitoringRecordMonitored, flag);
}

bool ORBServiceManager::isServiceBeingTrackedForRespawn(Label label) const {
  return isTracked(label, kMonitoringRecordMonitored);
}

void ORBServiceManager::trackServiceForUserClientShutdownRequest(Label label, bool flag) {
  track(label, kORBUserClientDidRequestShutdown, flag);
}

bool ORBServiceManager::isServiceBeingTrackedForUserClientShutdownRequest(Label label) const {
  return isTracked(label, kORBUserClientDidRequestShutdown);
}

void ORBServiceManager::handleServiceDidStartNotification(
    const DistributedNotification& notification) {
  const Value services = serviceInfo_["Services"];
  if (!services.dictionary()) return;
  for (const auto& [label, entry] : *services.dictionary()) {
    const std::string* name = entry["Notification"].string();
    if (name && *name == notification.name) return evaluateInformationForService(label);
  }
}

bool ORBServiceManager::shutdownServices(const Array& labels) {
  operatingMode_ = ORBOperatingModeInstaller;
  isInstallerAtWork_ = true;
  bool haveAllStopped = true;
  for (const Value& element : labels) {
    const std::string* label = element.string();
    if (!label) continue;
    if (!enforceShutdownForService(*label)) haveAllStopped = false;
    if (healthInfo_) healthInfo_->reportIntallerEventStartedForService(*label);
  }
  return haveAllStopped;
}
