#pragma once

// The collaborators that supervise services, without the daemon that decides about them.

#include <memory>
#include <string>
#include <utility>
#include <vector>

#include "ServiceManager/Catalogue/ServiceCatalogue.h"
#include "ServiceManager/Supervision/ExitMonitor.h"
#include "ServiceManager/Supervision/ExtensionControl.h"
#include "ServiceManager/Supervision/LaunchdJobs.h"
#include "ServiceManager/Supervision/MonitoringRecords.h"
#include "ServiceManager/Supervision/ServiceEnforcement.h"
#include "ServiceManager/Supervision/SupervisedMachine_fixture.h"
#include "Shared/ORBSigningValidator.h"

class SupervisionFixture : public SupervisedMachine {
 protected:
  using Event = std::pair<std::string, platform::ProcessId>;

  SupervisionFixture() { use(catalogue()); }

  // Uses the catalogue, with a record and a sound program for each of its services.
  void use(const Dictionary& catalogue) {
    addPrograms(catalogue);
    catalogue_ = ServiceCatalogue(catalogue);
    records_.reset(catalogue_.services());
  }
  void useHealth() { health_ = std::make_unique<FakeServiceHealth>(reports_); }

  ServiceCatalogue catalogue_;
  Value secret_ = platform::Data{1, 2, 3, 4, 5, 6, 7, 8};
  std::unique_ptr<ServiceHealth> health_;
  ORBSigningValidator validator_{signatures_};
  int changes_ = 0;  // of what is known of jobs
  LaunchdJobs launchd_{jobs_, authorization_, [this] { ++changes_; }};
  MonitoringRecords records_;
  // The reports of the exit monitor.
  std::vector<Event> watched_;
  std::vector<Event> ended_;
  ExitMonitor exits_{
      loop_,
      exitWatcher_,
      launchd_,
      records_,
      {.onWatch = [this](const std::string& label,
                         platform::ProcessId process) { watched_.emplace_back(label, process); },
       .onEnd =
           [this](const std::string& label, platform::ProcessId process) {
             ended_.emplace_back(label, process);
             records_.trackServiceForRespawn(label, false);  // As the daemon does.
           }}};
  // The evaluations that the extension control has asked for.
  std::vector<std::pair<std::string, platform::Duration>> evaluations_;
  int endedLoads_ = 0;  // of extensions
  ExtensionControl control_{
      {.runLoop = loop_,
       .onWorker = [this](platform::RunLoop::Callback work) { loop_.post(std::move(work)); },
       .loads = {extensionsPlatform_, system_, files_, bundle_},
       .catalogue = catalogue_,
       .secret = secret_,
       .stopService =
           [this](const std::string& label, ExtensionControl::Done done) {
             enforcement_.stopForExtension(label, std::move(done));
           },
       .evaluateLater = [this](
                            const std::string& label,
                            platform::Duration delay) { evaluations_.emplace_back(label, delay); },
       .onEnd = [this](const std::string&, std::string_view) { ++endedLoads_; }}};
  platform::TurnQueue turns_{loop_};
  std::vector<std::string> rechecked_;
  ProgramRechecks rechecks_{loop_, [this](const std::string& label) {
                              rechecked_.push_back(label);
                              enforcement_.enforceRunningForService(label, {});
                            }};
  int unready_ = 0;     // how often a service was reported as not ready
  int activities_ = 0;  // changes of them
  MainThreadWork mainThreadWork_{loop_};
  ServiceEnforcement enforcement_{{.runLoop = loop_,
                                   .mainThreadWork = mainThreadWork_,
                                   .turns = turns_,
                                   .catalogue = catalogue_,
                                   .jobs = launchd_,
                                   .records = records_,
                                   .exits = exits_,
                                   .extensions = control_,
                                   .health = health_,
                                   .files = files_,
                                   .system = system_,
                                   .validator = validator_,
                                   .onUnready = [this] { ++unready_; },
                                   .rechecks = rechecks_,
                                   .onUnsupported = [] {},
                                   .onActivity = [this] { ++activities_; }}};
};
