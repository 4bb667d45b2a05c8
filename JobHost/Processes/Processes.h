#pragma once

#include <functional>

#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Processes/ProcessSpawner.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Starts, watches and signals the processes of jobs. Each leads a session and a process group of
// its own, which have its number. Belongs to the run loop's thread.
class Processes {
 public:
  using OnEnd = std::move_only_function<void(Ending)>;

  virtual ~Processes() = default;

  // Starts the process of `job`, which completes and appends the record of `ticket` before its
  // program is executed. If `listener` is not -1, the process gets it as descriptor 3. `onEnd` is
  // called once, with Urgency::kProcessExit and never from inside this call. The error says which
  // stage failed, and why. Then there is no process, but the record may be in the file, in part or
  // whole.
  virtual platform::Result<platform::ProcessId> start(const JobDefinition& job,
                                                      const StartTicket& ticket,
                                                      platform::Descriptor listener,
                                                      OnEnd onEnd) = 0;

  // Watches a process that another host has started. How it ends can't be known. kNotFound if it
  // has ended, whatever process has its number now.
  virtual platform::Result<void> takeOver(const StartFields& identity, OnEnd onEnd) = 0;

  // Whether other processes still live in the group of a process that has ended. False while the
  // process itself lives. No new process gets a number that still means a group, so the group is
  // ours if no process has the number and no member is older than its leader. True if that can't be
  // found out. Zombies don't count. May read every process of the system.
  virtual bool hasRemainingProcesses(const StartFields& identity) = 0;

  // Calls the `onEnd` of this process now if it has ended and `onEnd` has not been called.
  virtual void reportIfEnded(platform::ProcessId process) = 0;

  // Signals every process of the group. Does nothing if there is none. The number must be that of a
  // group of which a member still lived a moment ago.
  virtual void signalGroup(platform::ProcessId group, int signal) = 0;

  // A copy of a watched process's descriptor. Empty if the process has no such descriptor, or the
  // system gives no copy.
  virtual platform::UniqueFd copyDescriptor(platform::ProcessId process,
                                            platform::Descriptor descriptor) = 0;
};

}  // namespace jobhost
