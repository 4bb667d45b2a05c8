#pragma once

#include <functional>
#include <list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "ServiceManager/Supervision/LaunchdJobs.h"
#include "ServiceManager/Supervision/MonitoringRecords.h"

// Watches the processes of the services' jobs and reports their end, each once. Belongs to the main
// thread.
class ExitMonitor {
 public:
  // The events of a service's process. `onEnd` is called with Urgency::kProcessExit.
  using Callback = std::function<void(const std::string& label, platform::ProcessId process)>;
  struct Events {
    Callback onWatch;  // the process runs and is watched from now on
    Callback onEnd;    // the process has ended
  };

  // All of them outlive this.
  ExitMonitor(platform::RunLoop& runLoop, platform::ExitWatcher& exitWatcher,
              const LaunchdJobs& jobs, MonitoringRecords& records, Events events);

  // Arms a watch for the end of the process of the service's job. If the job has no process yet,
  // this blocks until it has one, for 12 seconds at most. False if there is no process, or if the
  // label has no record. `retryOnFailure` is deliberately ignored.
  bool monitorJobWithIdentifier(Label label, bool retryOnFailure);

 private:
  std::optional<platform::ProcessId> awaitProcess(std::string_view label) const;
  bool armExitWatch(const std::string& label, platform::ProcessId process);

  platform::RunLoop& runLoop_;
  platform::ExitWatcher& exitWatcher_;
  const LaunchdJobs& jobs_;
  MonitoringRecords& records_;
  const Events events_;
  // Each ends with its process. A service that was stopped and started again may have two.
  struct ExitWatch {
    std::string label;
    platform::ProcessId process;
    std::unique_ptr<platform::RunLoopHandle> handle;
  };
  std::list<ExitWatch> exitWatches_;
};
