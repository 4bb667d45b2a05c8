#pragma once

#include <cstdint>
#include <memory>
#include <span>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/Processes/ChildStart.h"
#include "JobHost/Processes/JobOutput.h"
#include "JobHost/State/StartTicket.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Starts the processes of jobs: children of this process, each in a session and a process group of
// its own, and with nothing of the host's surroundings: umask, niceness, scheduling, soft limits,
// session keyring and score for the OOM killer are the job's or the defaults. It clones with shared
// memory until the program is executed, so that the cost does not grow with the host. One at a
// time, from one thread.
class ProcessSpawner {
 public:
  // How long a process may take to execute its program. The host waits for it.
  static constexpr platform::Duration kStartTimeOut = std::chrono::seconds(5);

  using Spawned = StartedChild;

  // `originalDescriptorLimit` is the soft limit of the processes whose job sets none. The
  // dispositions of real-time signals are read now and must not change later. `host` is the
  // hostMark() for the processes' marks.
  static platform::Result<ProcessSpawner> create(std::uint64_t originalDescriptorLimit,
                                                 std::uint64_t host,
                                                 platform::Duration startTimeOut = kStartTimeOut);

  ProcessSpawner(ProcessSpawner&&) noexcept;
  ProcessSpawner& operator=(ProcessSpawner&&) = delete;
  ~ProcessSpawner();

  // Returns when the program is being executed and the record of `ticket` is in its file or could
  // not be written. The process gets `listeners` as descriptors 3, 4 and so on. The job must have
  // as many services, or there must be none.
  //
  // The error says which stage failed (finding the user, opening which file, fork, setuid, exec
  // ...) and why. Then there is no process, but the record may be in the file, in part or whole.
  // Another process that stops the new one delays it a little. After the start time-out it is
  // killed.
  //
  // The process begins in the control group of the descriptor `group`, if that is not -1 and the
  // system permits it. Nothing that it starts is ever outside. `output` is for openStandardFiles().
  platform::Result<Spawned> spawn(const JobDefinition& job, const StartTicket& ticket,
                                  std::span<const platform::Descriptor> listeners,
                                  platform::Descriptor group = -1, const JobOutput& output = {});

  // Whether each pidfd has an inode number that is unique in this boot.
  bool hasUniquePidfds() const { return hasUniquePidfds_; }

 private:
  ProcessSpawner() = default;

  std::uint64_t originalDescriptorLimit_ = 0;
  std::uint64_t host_ = 0;
  platform::Duration startTimeOut_{};
  bool hasUniquePidfds_ = false;
  bool resetsOomScore_ = false;
  std::uint64_t signalsToReset_ = 0;
  // The host's own account, which most jobs run as. It stays the same while the host runs.
  JobAccount ownAccount_;
  bool hasItsIds_ = false;   // A process of this account inherits them.
  platform::UniqueFd null_;  // /dev/null, for most standard files
  void* stack_ = nullptr;    // for the child, until it executes its program
};

// Whether pidfds have inode numbers that are unique in this boot.
bool pidfdsAreUnique();

}  // namespace jobhost
