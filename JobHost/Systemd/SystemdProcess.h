#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>

#include "JobHost/Processes/Processes.h"
#include "Platform/Linux/Processes/ControlGroup.h"
#include "Platform/Linux/Systemd/SystemdManager.h"

namespace jobhost {

// A process that systemd has started in a unit. The kernel tells that it has ended, systemd tells
// how. When the handle is destroyed after the end, the unit is released.
class SystemdProcess final : public JobProcess {
 public:
  // How long systemd may take to report an end that the kernel has reported.
  static constexpr platform::Duration kEndTimeOut = std::chrono::seconds(1);

  // `manager` outlives this. `group` is the unit's control group, empty if it can't be found.
  SystemdProcess(platform::SystemdManager& manager, std::string unit, OnEnd onEnd)
      : manager_(manager), unit_(std::move(unit)), onEnd_(std::move(onEnd)) {}
  SystemdProcess(const SystemdProcess&) = delete;
  SystemdProcess& operator=(const SystemdProcess&) = delete;
  ~SystemdProcess() override;

  // The handle on the process itself, whose end calls ended().
  void hold(std::unique_ptr<JobProcess> process, std::optional<platform::ControlGroup> group);
  void ended();

  const StartFields& identity() const override { return process_->identity(); }
  void reportIfEnded() override { process_->reportIfEnded(); }
  platform::Result<void> signalGroup(int signal) override { return process_->signalGroup(signal); }
  platform::Result<void> signalLeader(int signal) override {
    return process_->signalLeader(signal);
  }
  platform::Result<void> killTree() override;
  bool hasRemainingProcesses() override;
  bool hasControlGroup() const override { return group_.has_value(); }
  std::optional<platform::JobTree> tree() const override;
  platform::UniqueFd copyDescriptor(platform::Descriptor descriptor) override {
    return process_->copyDescriptor(descriptor);
  }

 private:
  platform::SystemdManager& manager_;
  const std::string unit_;
  OnEnd onEnd_;
  bool hasEnded_ = false;
  std::optional<platform::ControlGroup> group_;
  std::unique_ptr<JobProcess> process_;
};

}  // namespace jobhost
