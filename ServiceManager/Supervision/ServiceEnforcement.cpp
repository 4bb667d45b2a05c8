#include "ServiceManager/Supervision/ServiceEnforcement.h"

#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Supervision/ServiceProgram.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

namespace {

void logDamagedProgram(std::string_view label) {
  vantorlogger2_line(ASL_LEVEL_WARNING,
                     stringWithFormat("Program file for %@ appears to be damaged", label));
}

}  // namespace

Value ServiceEnforcement::launchService(const std::string& label, bool firstTime) {
  const Value jobInfo = environment_.catalogue.jobInfo(label);
  return jobInfo.isNil() ? Value() : launch(label, jobInfo, firstTime);
}

Value ServiceEnforcement::launch(const std::string& label, const Value& jobInfo, bool firstTime) {
  const ProgramState program = programState(jobInfo);
  if (program == ProgramState::kMissing) {
    vantorlogger2_line(ASL_LEVEL_WARNING,
                       stringWithFormat("Cannot find program path for service: %@", label));
    return {};
  }
  if (program == ProgramState::kDamaged) {
    logDamagedProgram(label);
    if (!firstTime) environment_.jobs.unloadJobFromLaunchD(label);
    return {};
  }
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Starting up service %@", label));
  if (!environment_.extensions.startAssociatedSystemExtensions(label)) {
    vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Failed to load kext for %@", label));
    return {};
  }
  std::optional<NSError> error;
  if (environment_.jobs.submitJobRequest(jobInfo, kSMDomainSystemLaunchd, error)) {
    return environment_.jobs.copyJobDictionary(label);
  }
  vantorlogger2_line(ASL_LEVEL_ERR,
                     stringWithFormat("Unable to load %@.\n%@", label, error.value_or(NSError{})));
  return {};
}

ProgramState ServiceEnforcement::programState(const Value& jobInfo) const {
  const std::string& path = *jobInfo["Program"].string();
  return checkProgram(path, environment_.files, environment_.validator).state;
}

void ServiceEnforcement::enforceRunningForService(const std::string& label,
                                                  CompletionBlock withCompletionBlock) {
  const Value jobInfo = environment_.catalogue.jobInfo(label);
  if (jobInfo.isNil()) return;
  const JobStatus known = environment_.jobs.status(label);
  if (!checkOSSupportForService(label)) {
    if (environment_.health) environment_.health->stopMonitoringForService(label);
    return;
  }
  const auto job = known.process ? checkRunningService(label, jobInfo, known)
                                 : startStoppedService(label, jobInfo, known);
  if (!job) return;
  const bool retry = !job->status.lastExitStatus.isNil() && !job->status.process;
  const bool isWatched = environment_.exits.monitorJobWithIdentifier(label, retry);
  if (environment_.health) {
    if (isWatched && job->extensionsAreConfigured) {
      environment_.health->reportStartForService(label);
    } else {
      environment_.health->reportUnreadyStateForService(label);
    }
  }
  if (withCompletionBlock) withCompletionBlock();
}

std::optional<ServiceEnforcement::EnforcedJob> ServiceEnforcement::checkRunningService(
    const std::string& label, const Value& jobInfo, const JobStatus& known) {
  if (programState(jobInfo) != ProgramState::kSound) {
    logDamagedProgram(label);
    if (environment_.health) environment_.health->reportUnreadyStateForService(label);
    environment_.jobs.unloadJobFromLaunchD(label);
    return std::nullopt;
  }
  vantorlogger2_line(
      ASL_LEVEL_DEBUG,
      "Configure and if necessary start any kexts which are associated with the already running "
      "service");
  const bool areConfigured = environment_.extensions.startAssociatedSystemExtensions(label);
  if (!areConfigured) {
    vantorlogger2_line(
        ASL_LEVEL_DEBUG,
        stringWithFormat("Failed to configure kext for already running service %@", label));
  }
  return EnforcedJob{known, areConfigured};
}

std::optional<ServiceEnforcement::EnforcedJob> ServiceEnforcement::startStoppedService(
    const std::string& label, const Value& jobInfo, const JobStatus& known) {
  const std::string suffix =
      known.lastExitStatus.isNil() ? std::string() : stringWithFormat(" %@", known.lastExitStatus);
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("Service %@ is not running%@", label, suffix));
  const bool isFirstTime = known.presence == JobStatus::Presence::kAbsent;
  const JobStatus launched = jobStatusIn(launch(label, jobInfo, isFirstTime));
  // If the job host has stopped answering meanwhile, don't wait for a process.
  if (launched.presence != JobStatus::Presence::kPresent) {
    if (environment_.health) environment_.health->reportUnreadyStateForService(label);
    return std::nullopt;
  }
  return EnforcedJob{launched, true};
}

bool ServiceEnforcement::enforceShutdownForService(const std::string& label) {
  environment_.extensions.forgetExtensionsOf(label);
  // The stop is reported before the job is removed, so that its end does not count as a crash.
  if (environment_.health) environment_.health->reportStopForService(label);
  environment_.records.trackServiceForRespawn(label, false);
  // If the job host does not answer, there may be a job, and only a removal that succeeds ends it.
  if (environment_.jobs.status(label).presence == JobStatus::Presence::kAbsent) return true;
  std::optional<NSError> error;
  if (environment_.jobs.submitJobRequest(Value(label), kSMDomainSystemLaunchd, error)) {
    vantorlogger2_line(ASL_LEVEL_DEBUG,
                       stringWithFormat("Did enforce shutdown for service: %@", label));
    return true;
  }
  vantorlogger2_line(ASL_LEVEL_ERR, stringWithFormat("Unable to unload %@.\n%@", label,
                                                     error.value_or(NSError{})));
  return false;
}

bool ServiceEnforcement::checkOSSupportForService(const std::string& label) const {
  const Value version = environment_.catalogue.service(label)["MinimumOSVersion"];
  const OSSupport support =
      osSupport(version, NSProcessInfo::Extensions::systemMajorNumber(&environment_.system));
  if (support == OSSupport::kUnknownRelease) {
    vantorlogger2_line(
        ASL_LEVEL_ERR,
        stringWithFormat("Unknown OS version: '%@'.  Not starting service", version));
  }
  return support == OSSupport::kSupported;
}
