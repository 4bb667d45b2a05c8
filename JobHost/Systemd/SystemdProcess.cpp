#include "JobHost/Systemd/SystemdProcess.h"

#include <csignal>

#include "JobHost/Systemd/JobUnit.h"

namespace jobhost {

SystemdProcess::~SystemdProcess() {
  if (hasEnded_) manager_.release(unit_);
}

void SystemdProcess::hold(std::unique_ptr<JobProcess> process,
                          std::optional<platform::ControlGroup> group) {
  process_ = std::move(process);
  group_ = std::move(group);
}

void SystemdProcess::ended() {
  hasEnded_ = true;
  const auto process = static_cast<std::uint32_t>(identity().process);
  const auto end = manager_.awaitEndOf(unit_, process, kEndTimeOut);
  // The report may destroy this.
  auto onEnd = std::exchange(onEnd_, nullptr);
  if (onEnd) onEnd(end ? endingOf(end->code, end->status) : Ending());
}

platform::Result<void> SystemdProcess::killTree() {
  // Also if systemd is silent.
  const auto killed = group_ && group_->isPopulated() ? group_->kill() : platform::Result<void>();
  if (!group_) manager_.signalAll(unit_, SIGKILL);
  const auto sent = signalGroup(SIGKILL);
  return sent ? killed : sent;
}

bool SystemdProcess::hasRemainingProcesses() {
  if (hasEnded_ && group_ && group_->isPopulated()) return true;
  return process_->hasRemainingProcesses();
}

std::optional<platform::JobTree> SystemdProcess::tree() const {
  if (!group_) return std::nullopt;
  const auto use = group_->use();
  platform::JobTree tree{.processes = static_cast<std::int64_t>(use.processes),
                         .cpuTime = use.cpuTime,
                         .memoryBytes = {}};
  if (use.memoryBytes) tree.memoryBytes = static_cast<std::int64_t>(*use.memoryBytes);
  return tree;
}

}  // namespace jobhost
