#pragma once

#include <memory>
#include <optional>
#include <string>
#include <unordered_set>
#include <utility>

#include "JobHost/Processes/JobGroups.h"
#include "JobHost/Processes/Processes.h"
#include "Platform/Linux/Processes/ControlGroup.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"
#include "Platform/RunLoops/RunLoop.h"

namespace jobhost {

// A process held by its pidfd, which also means its group, or a group without a leader, which has
// no pidfd.
class LinuxProcess final : public JobProcess {
 public:
  using Numbers = std::unordered_set<platform::ProcessId>;

  LinuxProcess(const StartFields& identity, platform::UniqueFd pidfd)
      : identity_(identity), pidfd_(std::move(pidfd)) {}
  LinuxProcess(const LinuxProcess&) = delete;
  LinuxProcess& operator=(const LinuxProcess&) = delete;
  ~LinuxProcess() override;

  platform::Result<void> watch(platform::RunLoop& loop, OnEnd onEnd);
  // This process's child, which is in `children` until it has been reaped.
  void becomeParent(Numbers& children);
  // The process is in this group of `groups`, which outlive it.
  void setControlGroup(JobGroups& groups, const platform::ControlGroup& group) {
    groups_ = &groups;
    groupName_ = groups.nameOf(group);
  }

  const StartFields& identity() const override { return identity_; }
  void reportIfEnded() override;
  platform::Result<void> signalGroup(int signal) override;
  platform::Result<void> signalLeader(int signal) override;
  platform::Result<void> killTree() override;
  bool hasRemainingProcesses() override;
  bool hasControlGroup() const override { return groups_ != nullptr; }
  std::optional<platform::JobTree> tree() const override;
  platform::UniqueFd copyDescriptor(platform::Descriptor descriptor) override;

 private:
  bool hasEnded() const;
  platform::ControlGroup controlGroup() const { return groups_->named(groupName_); }
  void ended();
  void reap();
  int sendToGroup(int signal) const;

  const StartFields identity_;
  platform::UniqueFd pidfd_;
  JobGroups* groups_ = nullptr;  // null if it has no group
  std::string groupName_;
  Numbers* children_ = nullptr;  // null if it is another process's child, or was reaped
  OnEnd onEnd_;
  std::unique_ptr<platform::RunLoopHandle> source_;  // Destroyed before the descriptor.
  // Set while the callback of the end runs, which may destroy this.
  std::shared_ptr<bool> isDestroyed_;
};

}  // namespace jobhost
