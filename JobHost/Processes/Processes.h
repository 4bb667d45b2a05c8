#pragma once

#include <functional>

#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Processes/ProcessSpawner.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The processes of jobs: started, watched, signalled. Each is the leader of a session and a process
// group of its own, which have its number. Belongs to the run loop's thread.
class Processes {
 public:
  using OnEnd = std::move_only_function<void(Ending)>;

  virtual ~Processes() = default;

  // Starts the process of `job`, which completes and appends the record of `ticket` before its
  // program is executed, and gets `listener` as its descriptor 3 where that is not -1. `onEnd` is
  // called once, with Urgency::kProcessExit and never from inside this call. Fails with a text that
  // says which stage failed, and why; then there is no process, but the record may be in the file,
  // in part or whole.
  virtual platform::Result<platform::ProcessId> start(const JobDefinition& job,
                                                      const StartTicket& ticket,
                                                      platform::Descriptor listener,
                                                      OnEnd onEnd) = 0;

  // Watches a process that another host has started; how it ends can't be known. kNotFound where it
  // has gone, whatever has its number now.
  virtual platform::Result<void> takeOver(const StartFields& identity, OnEnd onEnd) = 0;

  // Whether something of the group still lives of a process that has ended; not while that lives
  // itself. A number that still means a group is given to no new process, so what has it is what
  // was left behind, as long as no other process has it, and nothing of it is older than its
  // leader. So it does where that can't be found out. Ended processes that nobody has reaped don't
  // count. May look at every process of the system.
  virtual bool hasSurvivors(const StartFields& identity) = 0;

  // Calls the `onEnd` of this process now where it has ended and that has not been called.
  virtual void reportIfEnded(platform::ProcessId process) = 0;

  // Signals every process of the group; nothing happens where there is none. The number must be
  // that of a group of which a member still lived a moment ago.
  virtual void signalGroup(platform::ProcessId group, int signal) = 0;

  // A copy of a watched process's descriptor, empty where the system or the process has none to
  // give.
  virtual platform::UniqueFd copyDescriptor(platform::ProcessId process,
                                            platform::Descriptor descriptor) = 0;
};

}  // namespace jobhost
