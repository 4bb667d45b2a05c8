#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <vector>

#include "JobHost/Processes/JobGroups.h"
#include "JobHost/Processes/JobOutput.h"
#include "JobHost/Processes/LinuxMarkedProcess.h"
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
  // `originalDescriptorLimit` is the soft limit that the processes get, and `host` the hostMark()
  // in their marks. Without `groups`, a process that leaves its process group is known by its mark
  // alone. `output` is for openStandardFiles().
  static platform::Result<std::unique_ptr<LinuxProcesses>> create(
      platform::AsioRunLoop& loop, std::uint64_t originalDescriptorLimit, std::uint64_t host,
      std::optional<JobGroups> groups = std::nullopt, JobOutput output = {});

  platform::Result<std::unique_ptr<JobProcess>> start(
      const JobDefinition& job, const StartTicket& ticket,
      std::span<const platform::Descriptor> listeners, OnEnd onEnd) override;
  platform::Result<std::unique_ptr<JobProcess>> takeOver(const StartFields& identity,
                                                         OnEnd onEnd) override;
  std::unique_ptr<JobProcess> remainsOf(const StartFields& identity) override;
  platform::Result<std::vector<std::unique_ptr<MarkedProcess>>> findMarked(
      const Wanted& isWanted) override;
  // The same if another program puts the jobs' processes into control groups.
  platform::Result<std::vector<std::unique_ptr<MarkedProcess>>> findMarked(
      const Wanted& isWanted, const IsInGroupOf& isInGroupOf);
  bool haveControlGroups() const override { return groups_.has_value(); }
  void abandon(const std::string& label) override;
  void discard(const std::string& label) override;
  void discardOthers(const std::vector<std::string>& labels) override;

 private:
  LinuxProcesses(platform::AsioRunLoop& loop, ProcessSpawner spawner, std::uint64_t host,
                 std::optional<JobGroups> groups, JobOutput output);

  platform::RunLoop& loop_;
  ProcessSpawner spawner_;
  const std::uint64_t host_;
  std::optional<JobGroups> groups_;
  const JobOutput output_;
  // The children that the handles reap. The kernel reuses none of these numbers before that.
  std::unordered_set<platform::ProcessId> children_;
  OrphanReaper orphans_;
};

}  // namespace jobhost
