#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "JobHost/Processes/OrphanReaper.h"
#include "JobHost/Processes/ProcessSpawner.h"
#include "JobHost/Processes/Processes.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"

namespace jobhost {

// Children of this process, each held by one pidfd from its start to its end. This process is also
// the new parent of the processes that they leave behind.
class LinuxProcesses final : public Processes {
 public:
  // Makes this process the parent of its children's orphans, permanently. `loop` outlives this.
  // `originalDescriptorLimit` is the soft limit that the processes get.
  static platform::Result<std::unique_ptr<LinuxProcesses>> create(
      platform::AsioRunLoop& loop, std::uint64_t originalDescriptorLimit);

  platform::Result<platform::ProcessId> start(const JobDefinition& job, const StartTicket& ticket,
                                              platform::Descriptor listener, OnEnd onEnd) override;
  platform::Result<void> takeOver(const StartFields& identity, OnEnd onEnd) override;
  bool hasRemainingProcesses(const StartFields& identity) override;
  void reportIfEnded(platform::ProcessId process) override;
  void signalGroup(platform::ProcessId group, int signal) override;
  platform::UniqueFd copyDescriptor(platform::ProcessId process,
                                    platform::Descriptor descriptor) override;

 private:
  struct Watched {
    platform::UniqueFd pidfd;
    OnEnd onEnd;
    std::unique_ptr<platform::RunLoopHandle> source;  // Destroyed before the descriptor.
  };

  LinuxProcesses(platform::AsioRunLoop& loop, ProcessSpawner spawner);

  platform::Result<void> watch(platform::ProcessId process, platform::UniqueFd pidfd, OnEnd onEnd);
  void ended(platform::ProcessId process);

  platform::RunLoop& loop_;
  ProcessSpawner spawner_;
  std::unordered_map<platform::ProcessId, Watched> watched_;
  OrphanReaper orphans_;
};

}  // namespace jobhost
