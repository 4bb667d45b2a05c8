#pragma once

#include <cstdint>
#include <functional>
#include <list>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "ServiceManager/Supervision/LaunchdJobs.h"
#include "ServiceManager/Supervision/MonitoringRecords.h"

// Watches the processes of the services' jobs and reports their end, each once. Belongs to the main
// thread.
class ExitMonitor {
 public:
  // The events of a service's process. `onEnd` is called with Urgency::kProcessExit, so it may only
  // note what has happened.
  using Callback = std::function<void(const std::string& label, platform::ProcessId process)>;
  struct Events {
    Callback onWatch;  // the process runs and is watched from now on
    Callback onEnd;    // the process has ended
  };

  // All of them outlive this.
  ExitMonitor(platform::RunLoop& runLoop, platform::ExitWatcher& exitWatcher, LaunchdJobs& jobs,
              MonitoringRecords& records, Events events);

  // Whether the process is watched now.
  using Done = std::move_only_function<void(bool isWatched)>;

  // Arms a watch for the end of the process of the service's job. `done` is called later on the
  // loop: when the job host has told of the process, or has not answered. If it tells of none, the
  // process is looked for every two seconds, six times in all. Calls for a service whose process is
  // being looked for join this search. Not watched: there is no process, or the label has no
  // record. `retryOnFailure` is deliberately ignored.
  void monitorJobWithIdentifier(Label label, bool retryOnFailure, Done done);

  // Looks for the service's process now if it is being looked for.
  void lookForProcess(const std::string& label);
  // Ends the search for the service's process. Its `done` is not called.
  void endSearch(const std::string& label) { searches_.erase(label); }

 private:
  struct Search {
    std::uint64_t id = 0;   // an answer to an earlier question is ignored
    bool isAsking = false;  // the job host
    int looks = 0;
    std::unique_ptr<platform::RunLoopHandle> timer;  // null unless the next look is due later
    std::vector<Done> callers;
  };
  void look(const std::string& label);
  void ask(const std::string& label, Search& search);
  void askAgain(const std::string& label);
  void awaitNextLook(const std::string& label, Search& search);
  void end(const std::string& label, std::optional<platform::ProcessId> process);
  bool watch(const std::string& label, std::optional<platform::ProcessId> process);
  bool armExitWatch(const std::string& label, platform::ProcessId process);

  platform::RunLoop& runLoop_;
  platform::ExitWatcher& exitWatcher_;
  LaunchdJobs& jobs_;
  MonitoringRecords& records_;
  const Events events_;
  std::map<std::string, Search> searches_;  // by label
  std::uint64_t lastSearch_ = 0;
  // Each ends with its process. A service that was stopped and started again may have two.
  struct ExitWatch {
    std::string label;
    platform::ProcessId process;
    std::unique_ptr<platform::RunLoopHandle> handle;
  };
  std::list<ExitWatch> exitWatches_;
};
