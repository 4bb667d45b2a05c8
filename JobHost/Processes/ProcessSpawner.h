#pragma once

#include <cstdint>
#include <memory>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/Definitions/JobDefinition.h"
#include "JobHost/State/StartTicket.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Starts the processes of jobs: children of this process, each in a session and a process group of
// its own, by a clone that shares memory until the program is executed, so that its cost does not
// grow with the host. One at a time, from one thread.
class ProcessSpawner {
 public:
  // How long a process may take to come to its program: the host waits for it.
  static constexpr platform::Duration kPatience = std::chrono::seconds(5);

  struct Spawned {
    platform::ProcessId process = 0;
    platform::UniqueFd pidfd;
  };

  // `originalDescriptorLimit` is the soft limit that the processes get where their job sets none.
  // Real-time signals of this process are taken to stay as they are at this moment.
  static platform::Result<ProcessSpawner> create(std::uint64_t originalDescriptorLimit,
                                                 platform::Duration patience = kPatience);

  ProcessSpawner(ProcessSpawner&&) noexcept;
  ProcessSpawner& operator=(ProcessSpawner&&) = delete;
  ~ProcessSpawner();

  // Returns when the program is being executed, and the record of `ticket` is in its file. The
  // process gets `listener` as its descriptor 3 where that is not -1; the job then has a service.
  //
  // The error says which stage failed (finding the user, opening which file, fork, setuid, exec
  // ...) and why; there is no process then, but the record may be in the file, in part or whole.
  // Somebody who stops the process on its way delays it a little; one that takes longer than the
  // patience is killed.
  platform::Result<Spawned> spawn(const JobDefinition& job, const StartTicket& ticket,
                                  platform::Descriptor listener);

  // Whether each process of this boot has a pidfd with an inode number of its own.
  bool hasUniquePidfds() const { return hasUniquePidfds_; }

 private:
  ProcessSpawner() = default;

  std::uint64_t originalDescriptorLimit_ = 0;
  platform::Duration patience_{};
  bool hasUniquePidfds_ = false;
  std::uint64_t signalsToReset_ = 0;
  // The host's own, which most jobs run as; the same for as long as the host runs.
  JobAccount ownAccount_;
  platform::UniqueFd null_;  // /dev/null, which most standard files are
  void* stack_ = nullptr;    // the child's, until it executes its program
};

// Whether pidfds have inode numbers that are unique in this boot.
bool pidfdsAreUnique();

}  // namespace jobhost
