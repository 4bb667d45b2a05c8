#pragma once

#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "Platform/Files/FileReader.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"
#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/Catalogue/ServiceDecision.h"
#include "ServiceManager/Supervision/ExitMonitor.h"
#include "ServiceManager/Supervision/ExtensionControl.h"
#include "ServiceManager/Supervision/LaunchdJobs.h"
#include "ServiceManager/Supervision/MonitoringRecords.h"
#include "ServiceManager/Supervision/ServiceHealth.h"
#include "Shared/ORBSigningValidator.h"

// Makes one service run and be watched, or makes it stop. The decision has been made before.
// Belongs to the main thread, which it blocks while the job host, the disk or an extension works,
// for a bounded time. Failures are logged, and reported to the health record.
class ServiceEnforcement {
 public:
  using CompletionBlock = std::move_only_function<void()>;  // may be empty

  // All of it outlives this.
  struct Environment {
    const ServiceCatalogue& catalogue;
    LaunchdJobs& jobs;
    MonitoringRecords& records;
    ExitMonitor& exits;
    ExtensionControl& extensions;
    const std::unique_ptr<ServiceHealth>& health;  // null if the product keeps none
    platform::FileReader& files;
    const platform::SystemInformation& system;
    const ORBSigningValidator& validator;
  };

  explicit ServiceEnforcement(const Environment& environment) : environment_(environment) {}

  // Submits the service's job and returns its dictionary, or nil if the job can't or may not run.
  // `firstTime`: no job has the label yet.
  platform::Value launchService(const std::string& label, bool firstTime);

  // Makes the service's job run and watches its process. The block is called once the job is known
  // to run. Does nothing for a service without a job.
  void enforceRunningForService(const std::string& label, CompletionBlock withCompletionBlock);

  // Removes the service's job and waits for its end. True if there is no job any more.
  bool enforceShutdownForService(const std::string& label);

  // Whether this system is recent enough for the service.
  bool checkOSSupportForService(const std::string& label) const;

 private:
  // A job that runs or has been submitted.
  struct EnforcedJob {
    platform::JobStatus status;
    bool extensionsAreConfigured = false;
  };
  // Nothing if the service can't run, which has been reported then.
  std::optional<EnforcedJob> checkRunningService(const std::string& label,
                                                 const platform::Value& jobInfo,
                                                 const platform::JobStatus& known);
  std::optional<EnforcedJob> startStoppedService(const std::string& label,
                                                 const platform::Value& jobInfo,
                                                 const platform::JobStatus& known);
  platform::Value launch(const std::string& label, const platform::Value& jobInfo, bool firstTime);
  ProgramState programState(const platform::Value& jobInfo) const;

  const Environment environment_;
};
