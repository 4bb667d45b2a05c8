#pragma once

#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Files/FileReader.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/RunLoops/TurnQueue.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/Supervision/ExitMonitor.h"
#include "ServiceManager/Supervision/ExtensionControl.h"
#include "ServiceManager/Supervision/LaunchdJobs.h"
#include "ServiceManager/Supervision/MainThreadWork.h"
#include "ServiceManager/Supervision/MonitoringRecords.h"
#include "ServiceManager/Supervision/ProgramFindings.h"
#include "ServiceManager/Supervision/ProgramRechecks.h"
#include "ServiceManager/Supervision/ServiceActivity.h"
#include "ServiceManager/Supervision/ServiceHealth.h"
#include "ServiceManager/Supervision/ServiceProgram.h"
#include "Shared/ORBSigningValidator.h"

// Makes one service run and be watched, or makes it stop. The decision has been made before. The
// work on a service has one state, ServiceActivity. Nothing here waits for a service, so that the
// loop serves others meanwhile. Belongs to the main thread. Failures are logged, and reported to
// the health record.
class ServiceEnforcement {
 public:
  using CompletionBlock = std::move_only_function<void()>;            // may be empty
  using StopAnswer = std::move_only_function<void(bool hasStopped)>;  // may be empty
  using LaunchAnswer = std::move_only_function<void(platform::Value job)>;

  // All of it outlives this.
  struct Environment {
    const platform::RunLoop& runLoop;
    MainThreadWork& mainThreadWork;
    platform::TurnQueue& turns;
    const ServiceCatalogue& catalogue;
    LaunchdJobs& jobs;
    MonitoringRecords& records;
    ExitMonitor& exits;
    ExtensionControl& extensions;
    const std::unique_ptr<ServiceHealth>& health;  // null if the product keeps none
    platform::FileReader& files;
    const platform::SystemInformation& system;
    const ORBSigningValidator& validator;
    std::function<void()> onUnready;  // a service has been reported as not ready
    ProgramRechecks& rechecks;
    std::function<void()> onUnsupported;  // a service is left out, and its blocks are dropped
    std::function<void()> onActivity;     // the activity of a service has changed
  };

  explicit ServiceEnforcement(const Environment& environment) : environment_(environment) {}

  // Submits the service's job. The answer is the job's dictionary, or nil if the job can't or may
  // not run. `firstTime`: no job has the label yet.
  void launchService(const std::string& label, bool firstTime, LaunchAnswer answer);

  // Makes the service's job run and watches its process. The block is called in a later turn of the
  // loop, once the job is known to run, and also if its process was not found in time. It is
  // dropped if the service can't run, or is stopped meanwhile and not made to run again before its
  // removal has ended. Joins what goes on with the service; a removal is finished first. Does
  // nothing for a service without a job.
  void enforceRunningForService(const std::string& label, CompletionBlock withCompletionBlock);

  // Removes the service's job, if there is one. The answer is given when its processes have ended:
  // true if there is no job any more. Ends what goes on with the service.
  void enforceShutdownForService(const std::string& label, StopAnswer answer);

  // The same, before an extension of the service is unloaded. If this extension is needed to start
  // the service, the start goes on.
  void stopForExtension(const std::string& label, StopAnswer answer);

  // The job host has started a process of the job, or answers again: processes that are being
  // looked for may be there.
  void jobHasStarted(const std::string& label);
  void jobHostHasReturned();
  // The job host did not start a process of the job, because the program is not the verified file
  // any more: it may have been replaced by an installer.
  void programHasChanged(const std::string& label);

  // Whether this system is recent enough for the service.
  bool checkOSSupportForService(const std::string& label) const;

  ServiceActivity activityOf(const std::string& label) const;
  // The work on services, and since when it is of this kind, by label.
  struct Work {
    ServiceActivity activity;
    platform::Instant since;
  };
  std::map<std::string, Work, std::less<>> work() const;
  // The findings of the last checks of programs.
  std::shared_ptr<const ProgramFindings::Table> programFindings() const {
    return programFindings_.table();
  }
  // Whether anything goes on with any service.
  bool isWorking() const { return !services_.empty(); }
  // Calls `settled` when the work on all these services has ended, at once if there is none.
  // Requests that come meanwhile are waited for, too.
  void whenSettled(const std::vector<std::string>& labels, CompletionBlock settled);

 private:
  struct Service {
    ServiceActivity activity = ServiceActivity::kNothing;
    platform::Instant since{};  // of the activity
    // Answers to requests of an earlier one are ignored.
    std::uint64_t request = 0;
    bool isAskedAgain = false;  // since its process is looked for
    bool hasLostItsJob =
        false;  // to the unloading of an extension, while extensions are configured
    std::vector<CompletionBlock> blocks;
    std::vector<StopAnswer> stops;
    std::vector<std::shared_ptr<void>> observers;  // released when nothing goes on any more
  };

  ServiceStep advance(const std::string& label, ServiceEvent event);
  bool isCurrent(const std::string& label, std::uint64_t request) const;
  void check(const std::string& label);
  void askForJob(const std::string& label,
                 void (ServiceEnforcement::*then)(const std::string&, const platform::JobStatus&));
  void checkWithJob(const std::string& label, const platform::JobStatus& known);
  void checkRunningService(const std::string& label, const platform::Value& jobInfo,
                           const platform::JobStatus& known);
  void startStoppedService(const std::string& label, const platform::Value& jobInfo,
                           const platform::JobStatus& known);
  void launch(const std::string& label, const platform::Value& jobInfo, bool firstTime,
              LaunchAnswer answer);
  void submit(const std::string& label, const platform::Value& job, LaunchAnswer answer);
  void awaitProcess(const std::string& label, const platform::JobStatus& job,
                    bool areExtensionsConfigured);
  void checkIfJobIsLost(const std::string& label, const platform::JobStatus& known);
  void callBlocks(const std::string& label);
  void end(const std::string& label, ServiceEvent event);
  void endUnready(const std::string& label);
  void reportUnready(const std::string& label);
  void removeDamaged(const std::string& label);
  void beginStop(const std::string& label);
  void remove(const std::string& label);
  void removeJobIfAny(const std::string& label, StopAnswer done);
  void removeJob(const std::string& label, StopAnswer done);
  void jobIsRemoved(const std::string& label, bool hasStopped);
  ProgramCheck programOf(const std::string& label, const platform::Value& jobInfo);

  const Environment environment_;
  std::map<std::string, Service> services_;  // those with which something goes on
  std::uint64_t lastRequest_ = 0;
  ProgramFindings programFindings_;
};
