#include "ServiceManager/Supervision/ServiceEnforcement.h"

#include <optional>
#include <source_location>
#include <utility>

#include "Libraries/Static/ORBLogger2/ORBLogger2/ORBLogger2.h"
#include "Platform/Logging/LogMessageIds.h"
#include "Platform/Texts/StringFormat.h"
#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"

using namespace platform;

namespace {

void logDamagedProgram(std::string_view label,
                       const std::source_location& where = std::source_location::current()) {
  vantorlogger2_line(ASL_LEVEL_WARNING,
                     stringWithFormat("Program file for %@ appears to be damaged", label),
                     {.messageId = kProgramDamagedId, .label = label}, where);
}

}  // namespace

// The state of the work on a service.

ServiceActivity ServiceEnforcement::activityOf(const std::string& label) const {
  const auto service = services_.find(label);
  return service == services_.end() ? ServiceActivity::kNothing : service->second.activity;
}

std::map<std::string, ServiceEnforcement::Work, std::less<>> ServiceEnforcement::work() const {
  std::map<std::string, Work, std::less<>> work;
  for (const auto& [label, service] : services_) {
    work.emplace_hint(work.end(), label, Work{service.activity, service.since});
  }
  return work;
}

// The last of the services that hold the observer calls it.
void ServiceEnforcement::whenSettled(const std::vector<std::string>& labels,
                                     CompletionBlock settled) {
  struct Observer {
    explicit Observer(CompletionBlock call) : settled(std::move(call)) {}
    Observer(const Observer&) = delete;
    Observer& operator=(const Observer&) = delete;
    ~Observer() { settled(); }
    CompletionBlock settled;
  };
  const auto observer = std::make_shared<Observer>(std::move(settled));
  for (const std::string& label : labels) {
    const auto service = services_.find(label);
    if (service != services_.end()) service->second.observers.push_back(observer);
  }
}

ServiceStep ServiceEnforcement::advance(const std::string& label, ServiceEvent event) {
  const auto [next, step] = nextServiceActivity(activityOf(label), event);
  if (next != ServiceActivity::kNothing || services_.contains(label)) {
    Service& service = services_[label];
    if (service.activity != next) {
      service.since = environment_.runLoop.now();
      service.activity = next;
      environment_.onActivity();
    }
  }
  return step;
}

bool ServiceEnforcement::isCurrent(const std::string& label, std::uint64_t request) const {
  const auto service = services_.find(label);
  return service != services_.end() && service->second.request == request;
}

// Making it run.

void ServiceEnforcement::enforceRunningForService(const std::string& label,
                                                  CompletionBlock withCompletionBlock) {
  if (environment_.catalogue.jobInfo(label).isNil()) return;
  const ServiceStep step = advance(label, ServiceEvent::kRun);
  services_[label].isAskedAgain = true;
  if (withCompletionBlock) services_[label].blocks.push_back(std::move(withCompletionBlock));
  if (step == ServiceStep::kCheck) check(label);
}

void ServiceEnforcement::check(const std::string& label) {
  services_[label].hasLostItsJob = false;
  askForJob(label, &ServiceEnforcement::checkWithJob);
}

void ServiceEnforcement::askForJob(const std::string& label,
                                   void (ServiceEnforcement::*then)(const std::string&,
                                                                    const JobStatus&)) {
  const std::uint64_t request = services_[label].request = ++lastRequest_;
  environment_.jobs.copyJob(label, [this, label, request, then](const Value& copy) {
    if (isCurrent(label, request)) (this->*then)(label, jobStatusIn(copy));
  });
}

void ServiceEnforcement::checkWithJob(const std::string& label, const JobStatus& known) {
  const MainThreadWork::Scope scope(environment_.mainThreadWork, kWorkChecksService, label);
  advance(label, ServiceEvent::kJobIsKnown);
  if (!checkOSSupportForService(label)) {
    if (environment_.health) environment_.health->stopMonitoringForService(label);
    end(label, ServiceEvent::kCannotRun);
    environment_.onUnsupported();
    return;
  }
  const Value jobInfo = environment_.catalogue.jobInfo(label);
  if (known.process) {
    checkRunningService(label, jobInfo, known);
  } else {
    startStoppedService(label, jobInfo, known);
  }
}

void ServiceEnforcement::checkRunningService(const std::string& label, const Value& jobInfo,
                                             const JobStatus& known) {
  const ProgramState program = programOf(label, jobInfo).state;
  if (program == ProgramState::kMissing || program == ProgramState::kDamaged) {
    logDamagedProgram(label);
    reportUnready(label);
    removeDamaged(label);
    return;
  }
  vantorlogger2_line(
      ASL_LEVEL_DEBUG,
      "Configure and if necessary start any kexts which are associated with the already running "
      "service");
  const std::uint64_t request = services_[label].request;
  environment_.extensions.startAssociatedSystemExtensions(
      label, [this, label, request, known](bool areConfigured) {
        if (!isCurrent(label, request)) return;
        advance(label, ServiceEvent::kExtensionsAreDone);
        if (!areConfigured) {
          vantorlogger2_line(
              ASL_LEVEL_DEBUG,
              stringWithFormat("Failed to configure kext for already running service %@", label));
        }
        // An extension that had to be unloaded has cost the service its job. It needs a new one
        // then, and there is no process to look for.
        if (!services_[label].hasLostItsJob) {
          awaitProcess(label, known, areConfigured);
        } else if (areConfigured) {
          advance(label, ServiceEvent::kJobIsLost);
          check(label);
        } else {
          reportUnready(label);
          callBlocks(label);
          end(label, ServiceEvent::kCannotRun);
        }
      });
}

void ServiceEnforcement::startStoppedService(const std::string& label, const Value& jobInfo,
                                             const JobStatus& known) {
  const std::string suffix =
      known.lastExitStatus.isNil() ? std::string() : stringWithFormat(" %@", known.lastExitStatus);
  vantorlogger2_line(ASL_LEVEL_DEBUG,
                     stringWithFormat("Service %@ is not running%@", label, suffix));
  const bool isFirstTime = known.presence == JobStatus::Presence::kAbsent;
  const std::uint64_t request = services_[label].request;
  launch(label, jobInfo, isFirstTime, [this, label, request](const Value& copy) {
    const JobStatus launched = jobStatusIn(copy);
    if (!isCurrent(label, request)) return;
    // If the job host has stopped answering meanwhile, don't look for a process.
    if (launched.presence == JobStatus::Presence::kPresent) {
      awaitProcess(label, launched, true);
    } else {
      endUnready(label);
    }
  });
}

void ServiceEnforcement::launchService(const std::string& label, bool firstTime,
                                       LaunchAnswer answer) {
  const Value jobInfo = environment_.catalogue.jobInfo(label);
  if (jobInfo.isNil()) {
    answer({});
  } else {
    launch(label, jobInfo, firstTime, std::move(answer));
  }
}

void ServiceEnforcement::launch(const std::string& label, const Value& jobInfo, bool firstTime,
                                LaunchAnswer answer) {
  const ProgramCheck program = programOf(label, jobInfo);
  if (program.state == ProgramState::kMissing) {
    vantorlogger2_line(ASL_LEVEL_WARNING,
                       stringWithFormat("Cannot find program path for service: %@", label));
    answer({});
    return;
  }
  if (program.state == ProgramState::kDamaged) {
    logDamagedProgram(label);
    answer({});
    if (!firstTime) removeDamaged(label);
    return;
  }
  if (program.state == ProgramState::kUnknown) {
    answer({});
    return;
  }
  vantorlogger2_line(ASL_LEVEL_DEBUG, stringWithFormat("Starting up service %@", label));
  const std::uint64_t request = services_.contains(label) ? services_[label].request : 0;
  environment_.extensions.startAssociatedSystemExtensions(
      label, [this, label, request, job = jobOfVerifiedProgram(jobInfo, program),
              answer = std::move(answer)](bool areConfigured) mutable {
        if (request != 0 && !isCurrent(label, request)) return;
        if (!areConfigured) {
          vantorlogger2_line(ASL_LEVEL_DEBUG,
                             stringWithFormat("Failed to load kext for %@", label));
          answer({});
          return;
        }
        advance(label, ServiceEvent::kExtensionsAreDone);
        submit(label, job, std::move(answer));
      });
}

// The answer is dropped if the service is stopped meanwhile. Its removal follows the submission
// then, since the job host takes the requests for one label in their order.
void ServiceEnforcement::submit(const std::string& label, const Value& job, LaunchAnswer answer) {
  advance(label, ServiceEvent::kJobIsSent);
  environment_.jobs.submitJobRequest(
      job, kSMDomainSystemLaunchd,
      [this, label, answer = std::move(answer)](const auto& submitted) mutable {
        if (submitted) {
          environment_.rechecks.wasAccepted(label);
          return environment_.jobs.copyJob(label, std::move(answer));
        }
        const NSError refusal = submitted.error().value_or(NSError{});
        vantorlogger2_line(ASL_LEVEL_ERR,
                           stringWithFormat("Unable to load %@.\n%@", label, refusal),
                           {.messageId = kStartFailedId, .label = label});
        if (hasProgramChanged(refusal)) environment_.rechecks.wasRefused(label);
        // The process may run if only the answer is missing. Its start, which has been reported
        // during the submission, asked for no copy.
        environment_.jobs.refresh(label);
        answer({});
      });
}

void ServiceEnforcement::awaitProcess(const std::string& label, const JobStatus& job,
                                      bool areExtensionsConfigured) {
  advance(label, ServiceEvent::kJobIsAccepted);
  services_[label].isAskedAgain = false;
  const bool retry = !job.lastExitStatus.isNil() && !job.process;
  const std::uint64_t request = services_[label].request;
  environment_.exits.monitorJobWithIdentifier(
      label, retry, [this, label, request, areExtensionsConfigured](bool isWatched) {
        if (!isCurrent(label, request)) return;
        if (isWatched && areExtensionsConfigured) {
          if (environment_.health) environment_.health->reportStartForService(label);
        } else {
          reportUnready(label);
        }
        callBlocks(label);
        if (isWatched) return end(label, ServiceEvent::kProcessIsFound);
        if (!services_[label].isAskedAgain) return end(label, ServiceEvent::kProcessIsNotFound);
        advance(label, ServiceEvent::kJobIsLost);
        services_[label].isAskedAgain = false;
        askForJob(label, &ServiceEnforcement::checkIfJobIsLost);
      });
}

// A job that was lost while its process was looked for needs a new one. Without this, the requests
// that joined the search would have asked in vain.
void ServiceEnforcement::checkIfJobIsLost(const std::string& label, const JobStatus& known) {
  const bool isLost = known.presence == JobStatus::Presence::kAbsent;
  if (isLost || services_[label].isAskedAgain) {
    checkWithJob(label, known);
  } else {
    end(label, ServiceEvent::kCannotRun);
  }
}

void ServiceEnforcement::callBlocks(const std::string& label) {
  for (CompletionBlock& block : std::exchange(services_[label].blocks, {})) {
    environment_.turns.add(std::move(block));
  }
}

void ServiceEnforcement::end(const std::string& label, ServiceEvent event) {
  advance(label, event);
  services_.extract(label);  // Its observers may ask about it.
}

void ServiceEnforcement::endUnready(const std::string& label) {
  reportUnready(label);
  end(label, ServiceEvent::kCannotRun);
}

void ServiceEnforcement::reportUnready(const std::string& label) {
  if (environment_.health) environment_.health->reportUnreadyStateForService(label);
  environment_.onUnready();
}

void ServiceEnforcement::jobHasStarted(const std::string& label) {
  environment_.exits.lookForProcess(label);
}

void ServiceEnforcement::programHasChanged(const std::string& label) {
  if (environment_.catalogue.jobInfo(label).isNil()) return;
  if (activityOf(label) != ServiceActivity::kAwaitsProcess) {
    return environment_.rechecks.wasRefused(label);
  }
  environment_.exits.endSearch(label);
  advance(label, ServiceEvent::kJobIsLost);
  check(label);
}

void ServiceEnforcement::jobHostHasReturned() {
  std::vector<std::string> labels;
  for (const auto& [label, service] : services_) labels.push_back(label);
  for (const std::string& label : labels) {
    const ServiceStep step = advance(label, ServiceEvent::kJobHostReturns);
    if (step == ServiceStep::kLookForProcess) environment_.exits.lookForProcess(label);
  }
}

ProgramCheck ServiceEnforcement::programOf(const std::string& label, const Value& jobInfo) {
  const MainThreadWork::Scope scope(environment_.mainThreadWork, kWorkChecksProgram, label);
  const std::string& path = *jobInfo["Program"].string();
  ProgramCheck program = checkProgram(path, environment_.files, environment_.validator);
  programFindings_.note(label, path, program, environment_.validator, environment_.runLoop.now());
  if (program.state == ProgramState::kUnknown) {
    vantorlogger2_line(ASL_LEVEL_WARNING,
                       stringWithFormat("Program file for %@ can't be checked now", label));
    environment_.rechecks.couldNotCheck(label);
  } else {
    environment_.rechecks.hasChecked(label);
  }
  return program;
}

bool ServiceEnforcement::checkOSSupportForService(const std::string& label) const {
  const Value version = environment_.catalogue.service(label)[catalogue_keys::kMinimumOSVersion];
  const OSSupport support =
      osSupport(version, NSProcessInfo::Extensions::systemMajorNumber(&environment_.system));
  if (support == OSSupport::kUnknownRelease) {
    vantorlogger2_line(
        ASL_LEVEL_ERR,
        stringWithFormat("Unknown OS version: '%@'.  Not starting service", version));
  }
  return support == OSSupport::kSupported;
}
