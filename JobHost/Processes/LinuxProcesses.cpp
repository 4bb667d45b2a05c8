#include "JobHost/Processes/LinuxProcesses.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <string_view>
#include <utility>

#include <fmt/format.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include "JobHost/Processes/JobPriority.h"
#include "JobHost/Processes/LinuxProcess.h"
#include "JobHost/Processes/ProcessGroup.h"
#include "JobHost/Processes/ProcessTable.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace jobhost {

using platform::Error;
using platform::ErrorCode;
using platform::ProcessId;
using platform::Result;
using platform::systemError;
using platform::UniqueFd;

Result<std::unique_ptr<LinuxProcesses>> LinuxProcesses::create(
    platform::AsioRunLoop& loop, std::uint64_t originalDescriptorLimit, std::uint64_t host,
    std::optional<JobGroups> groups, JobOutput output) {
  auto spawner = ProcessSpawner::create(originalDescriptorLimit, host);
  if (!spawner) return std::unexpected(std::move(spawner.error()));
  std::unique_ptr<LinuxProcesses> processes(
      new LinuxProcesses(loop, *std::move(spawner), host, std::move(groups), std::move(output)));
  if (auto started = processes->orphans_.start(); !started) {
    return std::unexpected(std::move(started.error()));
  }
  return processes;
}

LinuxProcesses::LinuxProcesses(platform::AsioRunLoop& loop, ProcessSpawner spawner,
                               std::uint64_t host, std::optional<JobGroups> groups,
                               JobOutput output)
    : loop_(loop),
      spawner_(std::move(spawner)),
      host_(host),
      groups_(std::move(groups)),
      output_(std::move(output)),
      orphans_(loop, [this](ProcessId process) { return children_.contains(process); }) {}

Result<std::unique_ptr<JobProcess>> LinuxProcesses::start(
    const JobDefinition& job, const StartTicket& ticket,
    std::span<const platform::Descriptor> listeners, OnEnd onEnd) {
  std::optional<platform::ControlGroup> group;
  UniqueFd groupFolder;
  if (groups_) {
    group = groups_->of(job.label, job.abandonsProcessGroup);
    // Without its group, the process is known by its process group and its mark.
    if (auto opened = groups_->open(*group)) groupFolder = *std::move(opened);
    if (groups_->haveWeights()) group->setWeight(priorityOf(job).weight);
  }
  auto spawned = spawner_.spawn(job, ticket, listeners, groupFolder.get(), output_);
  if (!spawned) return std::unexpected(std::move(spawned.error()));
  StartFields identity;
  std::memcpy(&identity, ticket.record.data() + sizeof(RecordHeader), sizeof identity);
  if (spawned->isKilledInGroup) groups_->replaceSoon(*group);
  auto process = std::make_unique<LinuxProcess>(identity, std::move(spawned->pidfd));
  if (spawned->isInGroup) process->setControlGroup(*groups_, *group);
  process->becomeParent(children_);
  if (auto watched = process->watch(loop_, std::move(onEnd)); !watched) {
    // Its end would never be reported.
    static_cast<void>(process->signalGroup(SIGKILL));
    ::waitid(P_PID, static_cast<id_t>(identity.process), nullptr, WEXITED | WNOWAIT | __WALL);
    return std::unexpected(std::move(watched.error()));
  }
  return process;
}

Result<std::unique_ptr<JobProcess>> LinuxProcesses::takeOver(const StartFields& identity,
                                                             OnEnd onEnd) {
  const std::string what = fmt::format("taking over process {}", identity.process);
  UniqueFd pidfd(::pidfd_open(identity.process, 0));
  if (!pidfd) {
    // EINVAL and ENOENT: the number is now that of a thread, or of a group alone.
    const bool isGone = errno == ESRCH || errno == EINVAL || errno == ENOENT;
    return std::unexpected(
        systemError(what, isGone ? ErrorCode::kNotFound : ErrorCode::kExhausted));
  }
  // From here on a reuse of the number is noticed: until the process behind the pidfd ends, the
  // number means that process.
  const auto stat = statOf(std::to_string(identity.process));
  if (!stat) return std::unexpected(systemError(what, ErrorCode::kExhausted));
  struct stat status{};
  const bool isSame = startTicksIn(stat->data(), stat->size()) == identity.startTicks &&
                      ::fstat(pidfd.get(), &status) == 0 &&
                      (identity.pidfdInode == 0 || !spawner_.hasUniquePidfds() ||
                       status.st_ino == identity.pidfdInode);
  if (!isSame) return std::unexpected(Error{ErrorCode::kNotFound, 0, what + ": it has gone"});
  auto process = std::make_unique<LinuxProcess>(identity, std::move(pidfd));
  auto group = groups_ ? groups_->holding(std::to_string(identity.process)) : std::nullopt;
  if (group) process->setControlGroup(*groups_, *group);
  if (auto watched = process->watch(loop_, std::move(onEnd)); !watched) {
    return std::unexpected(std::move(watched.error()));
  }
  return process;
}

std::unique_ptr<JobProcess> LinuxProcesses::remainsOf(const StartFields& identity) {
  if (!groupRemains(identity)) return nullptr;
  // Other members of its control group may be of a later process of the job.
  return std::make_unique<LinuxProcess>(identity, UniqueFd());
}

void LinuxProcesses::abandon(const std::string& label) {
  if (groups_) groups_->abandon(label);
}

void LinuxProcesses::discard(const std::string& label) {
  if (groups_) groups_->discard(label);
}

void LinuxProcesses::discardOthers(const std::vector<std::string>& labels) {
  if (groups_) groups_->discardOthers(labels);
}

Result<std::vector<std::unique_ptr<MarkedProcess>>> LinuxProcesses::findMarked(
    const Wanted& isWanted) {
  if (!groups_) return findMarked(isWanted, {});
  return findMarked(isWanted, [this](std::string_view process, std::string_view label) {
    const auto group = groups_->holding(std::string(process));
    return group && JobGroups::isOf(*group, label);
  });
}

Result<std::vector<std::unique_ptr<MarkedProcess>>> LinuxProcesses::findMarked(
    const Wanted& isWanted, const IsInGroupOf& isInGroupOf) {
  std::vector<std::unique_ptr<MarkedProcess>> found;
  int shortage = 0;
  ExecutionWait execution;
  const bool isRead = eachProcess([&](std::string_view number, const std::string& stat) {
    auto marked = LinuxMarkedProcess::find(
        number, stat, {host_, groups_ ? &*groups_ : nullptr, isInGroupOf, execution}, isWanted);
    if (marked) {
      if (*marked) found.push_back(*std::move(marked));
      return true;
    }
    shortage = marked.error().osError;
    return false;
  });
  if (isRead && shortage == 0) return found;
  return std::unexpected(Error{ErrorCode::kExhausted, shortage, "finding the processes of jobs"});
}

}  // namespace jobhost
