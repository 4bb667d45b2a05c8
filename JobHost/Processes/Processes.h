#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <span>
#include <string>
#include <vector>

#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Processes/ProcessSpawner.h"
#include "JobHost/Processes/ProcessTable.h"
#include "JobHost/State/StoredJob.h"
#include "Platform/Jobs/JobTree.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// The number of the first passed descriptor in a process.
inline constexpr platform::Descriptor kFirstPassedDescriptor = 3;

// A handle on the process of a job, the leader, and on its group. It means that process and group
// for as long as it lives, whatever gets their number later. Destroying it ends the watch, and not
// the process.
class JobProcess {
 public:
  // Called once, with Urgency::kProcessExit. The leader is reaped afterwards. The callback may
  // destroy the handle.
  using OnEnd = std::move_only_function<void(Ending)>;

  virtual ~JobProcess() = default;

  virtual const StartFields& identity() const = 0;

  // Calls `onEnd` now if the leader has ended and `onEnd` has not been called.
  virtual void reportIfEnded() = 0;

  // Signals every process of the group, also after the leader's end. SIGTERM is followed by
  // SIGCONT, so that a stopped process can end. Succeeds if there is none. Fails if the system lets
  // this process signal none of them.
  virtual platform::Result<void> signalGroup(int signal) = 0;

  // The same for the leader alone.
  virtual platform::Result<void> signalLeader(int signal) = 0;

  // Kills every process of the group, and every other one in the job's control group, if it has
  // one. Succeeds and fails as signalGroup().
  virtual platform::Result<void> killTree() = 0;

  // Whether other processes live after the leader's end that killTree() would reach. False while
  // the leader lives.
  // True if that can't be found out. Zombies don't count. May read every process of the system.
  virtual bool hasRemainingProcesses() = 0;

  // Whether the job has a control group, which all that its processes start is in.
  virtual bool hasControlGroup() const = 0;

  // Its tree. Empty if the job has no control group.
  virtual std::optional<platform::JobTree> tree() const = 0;

  // A copy of the leader's descriptor. Empty if it has no such descriptor, or the system gives no
  // copy.
  virtual platform::UniqueFd copyDescriptor(platform::Descriptor descriptor) = 0;
};

// A process that carries the mark of a job: its leader, or one that descends from a leader. A
// handle as well.
class MarkedProcess {
 public:
  virtual ~MarkedProcess() = default;

  virtual const std::string& label() const = 0;
  // The identity of the process itself. The time of the start is the leader's.
  virtual const StartFields& identity() const = 0;
  virtual bool isLeader() const = 0;
  virtual bool hasEnded() const = 0;
  // As JobProcess::signalGroup(), but for this process alone.
  virtual platform::Result<void> signal(int signal) = 0;
};

// Starts and finds the processes of jobs. Each leads a session and a process group of its own,
// which have its number. Belongs to the run loop's thread and outlives its handles.
class Processes {
 public:
  using OnEnd = JobProcess::OnEnd;

  virtual ~Processes() = default;

  // Starts the process of `job`, which completes and appends the record of `ticket` before its
  // program is executed. It starts also if it can't append it, as on a full disk. The process gets
  // `listeners`, the sockets of its services in their order, as descriptors 3, 4 and so on. `onEnd`
  // is never called from inside this call. The error says which stage failed, and why. Then there
  // is no process, but the record may be in the file, in part or whole.
  virtual platform::Result<std::unique_ptr<JobProcess>> start(
      const JobDefinition& job, const StartTicket& ticket,
      std::span<const platform::Descriptor> listeners, OnEnd onEnd) = 0;

  // Watches a process that another host has started. How it ends can't be known. kNotFound if it
  // has ended, whatever process has its number now.
  virtual platform::Result<std::unique_ptr<JobProcess>> takeOver(const StartFields& identity,
                                                                 OnEnd onEnd) = 0;

  // The group of a process that another host has started and that has ended. Null if nothing is
  // left of it. No new process gets a number that still means a group, so the group is the same one
  // if no process has the number, the session has it too, and no member is older than the leader.
  virtual std::unique_ptr<JobProcess> remainsOf(const StartFields& identity) = 0;

  // A process that begins later has at least these start ticks.
  virtual std::uint64_t ticksNow() const { return startTicksNow(); }

  // A process with a mark of this host's root, boot and pid namespace, as the kernel shows it.
  struct Marked {
    std::string label;
    platform::ProcessId process = 0;
    platform::ProcessId group = 0;
    platform::ProcessId leader = 0;  // `process` if it is the leader
    std::uint64_t startTicks = 0;
    // The user who may have made the mark: root if the process is in the job's control group.
    platform::UserId user = 0;
  };
  using Wanted = std::function<bool(const Marked& marked)>;
  // The processes with a mark that `isWanted` accepts, in no order. Zombies have none, and neither
  // has a process that has overwritten its environment or that the system lets nobody read. Such a
  // process is found by its control group, if it has one: with its label, and without a leader.
  // Reads every process of the system. Fails if they can't be read for want of descriptors.
  virtual platform::Result<std::vector<std::unique_ptr<MarkedProcess>>> findMarked(
      const Wanted& isWanted) = 0;

  // Whether processes begin in control groups, as far as each group can be made.
  virtual bool haveControlGroups() const = 0;

  // The processes of the label that it abandons are nobody's from now on. If they stay in its
  // control group because a step fails, they are not killed either. Does nothing where there are no
  // control groups.
  virtual void abandon(const std::string& label) = 0;

  // Kills what is in the label's control group, but not what it abandons, and removes the group.
  // For a job that is no more, or has no process.
  virtual void discard(const std::string& label) = 0;
  // The same for all labels but these.
  virtual void discardOthers(const std::vector<std::string>& labels) = 0;
};

}  // namespace jobhost
