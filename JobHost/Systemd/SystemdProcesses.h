#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "JobHost/Processes/JobOutput.h"
#include "JobHost/Processes/LinuxProcesses.h"
#include "JobHost/Processes/Processes.h"
#include "JobHost/Systemd/StarterChannel.h"
#include "JobHost/Systemd/SystemdProcess.h"
#include "Platform/Linux/Processes/ControlGroup.h"
#include "Platform/Linux/Systemd/SystemdManager.h"

namespace jobhost {

struct SystemdOptions {
  std::string root;     // the platform root
  std::uint64_t host;   // the hostMark()
  std::string starter;  // the path of the program that systemd executes, and which becomes the
                        // job's program
  JobOutput output{};   // for openStandardFiles()
  bool printsToJournal = false;  // if there is no `output`: systemd connects it
};

// Processes that systemd starts, each in a transient unit of its own. The rules of restarts, the
// state file and the sockets stay with the host. A process is held by its pidfd and found by its
// mark as one that the host has started itself; systemd only knows besides how it has ended.
//
// Each call waits for systemd for a limited time only (SystemdManager). Without systemd, starts
// fail and are retried, and processes go on, can be signalled and end; how they ended is then
// unknown.
class SystemdProcesses final : public Processes {
 public:
  // How long a start may take until its program is executed.
  static constexpr platform::Duration kStartTimeOut = std::chrono::seconds(5);
  // After this time, and then after each doubled one, a starter that was stopped is continued.
  static constexpr platform::Duration kContinueInterval = std::chrono::milliseconds(50);

  // `processes` finds and holds processes. It and `manager` outlive this.
  SystemdProcesses(LinuxProcesses& processes, platform::SystemdManager& manager,
                   SystemdOptions options);

  platform::Result<std::unique_ptr<JobProcess>> start(
      const JobDefinition& job, const StartTicket& ticket,
      std::span<const platform::Descriptor> listeners, OnEnd onEnd) override;
  platform::Result<std::unique_ptr<JobProcess>> takeOver(const StartFields& identity,
                                                         OnEnd onEnd) override;
  std::unique_ptr<JobProcess> remainsOf(const StartFields& identity) override;
  platform::Result<std::vector<std::unique_ptr<MarkedProcess>>> findMarked(
      const Wanted& isWanted) override;
  bool haveControlGroups() const override { return hierarchy_.has_value(); }
  void abandon(const std::string& label) override;
  void discard(const std::string& label) override;
  void discardOthers(const std::vector<std::string>& labels) override;

 private:
  platform::Result<void> startUnit(const std::string& unit, const JobDefinition& job,
                                   const JobAccount& account, const StarterChannel& channel,
                                   int output, int error);
  platform::Result<void> clearUnit(const std::string& unit);
  using Wait = std::function<bool(platform::Duration limit)>;
  bool awaitContinuing(const std::string& unit, const Wait& wait);
  platform::Result<platform::ProcessId> awaitStarter(const std::string& unit,
                                                     StarterChannel& channel);
  platform::Result<std::unique_ptr<SystemdProcess>> hold(const std::string& unit,
                                                         const StartFields& identity, OnEnd onEnd);
  std::optional<platform::ControlGroup> groupOf(const std::string& unit) const;
  void endUnit(const std::string& unit);
  void discardUnit(const std::string& unit);

  LinuxProcesses& processes_;
  platform::SystemdManager& manager_;
  const SystemdOptions options_;
  const std::string slice_;
  const std::string hostUnit_;
  std::optional<platform::ControlGroupHierarchy> hierarchy_;
};

}  // namespace jobhost
