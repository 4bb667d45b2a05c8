#include "JobHost/Systemd/SystemdProcesses.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <filesystem>
#include <string_view>
#include <system_error>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/stat.h>

#include "JobHost/Definitions/JobAccount.h"
#include "JobHost/Processes/ProcessSpawner.h"
#include "JobHost/Processes/ProcessTable.h"
#include "JobHost/Processes/ProgramFile.h"
#include "JobHost/Processes/StandardFiles.h"
#include "JobHost/Systemd/JobUnit.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Texts/QuotedText.h"

namespace jobhost {
namespace {

using platform::ControlGroup;
using platform::Error;
using platform::ErrorCode;
using platform::ProcessId;
using platform::Result;
using platform::SystemdManager;
using platform::systemError;
using platform::UniqueFd;

// A unit of an earlier process that was found can go, come back by a question about it, and go
// again.
constexpr int kStartAttempts = 3;
constexpr char kUnitSuffix[] = ".service";

// The unit that this process runs in, empty if it is no service.
std::string unitOfThisProcess() {
  const std::string groups = platform::contentOfKernelFile("/proc/self/cgroup");
  const std::size_t begin = groups.find("0::/");
  if (begin == groups.npos) return {};
  const std::string path = groups.substr(begin, groups.find('\n', begin) - begin);
  const std::string last = path.substr(path.rfind('/') + 1);
  return last.ends_with(kUnitSuffix) ? last : std::string();
}

Result<StartFields> identityOf(ProcessId process, std::int64_t startedAt) {
  const UniqueFd pidfd(::pidfd_open(process, 0));
  const auto stat = statOf(std::to_string(process));
  struct stat status{};
  if (!pidfd || !stat || stat->empty() || ::fstat(pidfd.get(), &status) != 0) {
    return std::unexpected(systemError("reading the new process's start time"));
  }
  StartFields identity;
  identity.process = process;
  identity.startTicks = startTicksIn(stat->data(), stat->size());
  identity.pidfdInode = pidfdsAreUnique() ? status.st_ino : 0;
  identity.startedAt = startedAt;
  return identity;
}

std::int64_t startedAtIn(const StartTicket& ticket) {
  StartFields fields;
  std::memcpy(&fields, ticket.record.data() + sizeof(RecordHeader), sizeof fields);
  return fields.startedAt;
}

// The record is on its way before the program is executed. A process that can't be recorded is
// found by its mark.
void appendRecord(const StartTicket& ticket, const StartFields& identity) {
  completeStartRecord(ticket.record.data(), identity.process, identity.startTicks,
                      identity.pidfdInode);
  int error = 0;
  if (ticket.file >= 0) {
    const ssize_t count = platform::retryOnInterrupt(
        [&] { return ::write(ticket.file, ticket.record.data(), ticket.record.size()); });
    if (count < 0) error = errno;
    if (count >= 0 && static_cast<std::size_t>(count) != ticket.record.size()) error = ENOSPC;
  }
  if (ticket.writeError) *ticket.writeError = error;
}

}  // namespace

SystemdProcesses::SystemdProcesses(LinuxProcesses& processes, SystemdManager& manager,
                                   SystemdOptions options)
    : processes_(processes),
      manager_(manager),
      options_(std::move(options)),
      slice_(sliceOf(options_.root, options_.host)),
      hostUnit_(unitOfThisProcess()) {
  if (auto hierarchy = platform::ControlGroupHierarchy::find()) hierarchy_ = *std::move(hierarchy);
}

std::optional<ControlGroup> SystemdProcesses::groupOf(const std::string& unit) const {
  if (!hierarchy_) return std::nullopt;
  const std::string folder = hierarchy_->folderOf("0::" + groupPathOf(slice_) + "/" + unit + "\n");
  return folder.empty() ? std::nullopt : std::optional(ControlGroup(folder));
}

Result<std::unique_ptr<SystemdProcess>> SystemdProcesses::hold(const std::string& unit,
                                                               const StartFields& identity,
                                                               OnEnd onEnd) {
  auto process = std::make_unique<SystemdProcess>(manager_, unit, std::move(onEnd));
  // The inner handle calls this only while it lives, and it lives in the process.
  auto held =
      processes_.takeOver(identity, [whole = process.get()](const Ending&) { whole->ended(); });
  if (!held) return std::unexpected(std::move(held.error()));
  process->hold(*std::move(held), groupOf(unit));
  return process;
}

Result<std::unique_ptr<JobProcess>> SystemdProcesses::start(
    const JobDefinition& job, const StartTicket& ticket,
    std::span<const platform::Descriptor> listeners, OnEnd onEnd) {
  const std::string unit = unitNameOf(job.label, job.abandonsProcessGroup);
  const auto failed = [&](Error error) {
    error.context.insert(0, fmt::format("job {}: ", platform::quotedInMessage(job.label)));
    return std::unexpected(std::move(error));
  };
  auto account = lookUpAccount(job.userName, job.groupName);
  if (!account) return failed(std::move(account.error()));
  auto files = openStandardFiles(job, *account, options_.output);
  if (!files) return failed(std::move(files.error()));
  auto& [input, output, error] = *files;
  if (!input) input.reset(::open("/dev/null", O_RDONLY | O_CLOEXEC));
  if (!input) return failed(systemError("opening /dev/null"));
  std::optional<ProgramFile> program;
  if (job.verifiedProgram) {
    auto opened = ProgramFile::open(job.program, *job.verifiedProgram);
    if (!opened) return failed(std::move(opened.error()));
    program = *std::move(opened);
  }
  const JobMark mark{options_.host, startedAtIn(ticket), job.label, 0, job.abandonsProcessGroup};
  auto channel =
      StarterChannel::open(job, mark, {input.get(), listeners, program ? &*program : nullptr});
  if (!channel) return failed(std::move(channel.error()));

  manager_.expectJob(unit);
  auto begun = startUnit(unit, job, *account, *channel, output.get(), error.get());
  channel->closeEndOfStarter();
  auto starter = begun ? awaitStarter(unit, *channel) : std::unexpected(std::move(begun.error()));
  manager_.forgetJob(unit);
  if (!starter) return failed(std::move(starter.error()));
  const auto refused = [&](Error why) {
    endUnit(unit);
    return failed(std::move(why));
  };
  const auto identity = identityOf(*starter, mark.startedAt);
  if (!identity) return refused(identity.error());
  auto process = hold(unit, *identity, std::move(onEnd));
  if (!process) return refused(std::move(process.error()));
  appendRecord(ticket, *identity);
  auto executed = channel->go();
  if (executed) {
    awaitContinuing(unit, [&](platform::Duration limit) { return channel->awaitExecution(limit); });
    executed = channel->takeExecution(job);
  }
  if (!executed) {
    process->reset();
    return refused(std::move(executed.error()));
  }
  return std::unique_ptr<JobProcess>(*std::move(process));
}

// The unit of an earlier process may still be there, also of another root. One that no host has
// made is left alone.
Result<void> SystemdProcesses::clearUnit(const std::string& unit) {
  const auto status = manager_.statusOf(unit);
  if (!status) return std::unexpected(status.error());
  if (!status->isLoaded) return {};
  const std::string name = platform::quotedInMessage(unit);
  if (!status->isTransient || !isSliceOfJobs(status->slice)) {
    return std::unexpected(Error{ErrorCode::kSystem, EEXIST,
                                 fmt::format("systemd has another unit {} that is no job", name)});
  }
  if (status->mainProcess != 0) {
    return std::unexpected(
        Error{ErrorCode::kSystem, EBUSY,
              fmt::format("process {} runs in the unit {}", status->mainProcess, name)});
  }
  if (manager_.releaseAndAwait(unit, kStartTimeOut)) return {};
  return std::unexpected(
      Error{ErrorCode::kSystem, EBUSY, fmt::format("systemd keeps the unit {}", name)});
}

Result<void> SystemdProcesses::startUnit(const std::string& unit, const JobDefinition& job,
                                         const JobAccount& account, const StarterChannel& channel,
                                         int output, int error) {
  const UnitSurroundings surroundings{
      slice_, options_.starter,        hostUnit_, channel.endOfStarter(), output,
      error,  options_.printsToJournal};
  const auto properties = propertiesOf(job, account, surroundings);
  if (!properties) return std::unexpected(properties.error());
  for (int attempt = 1;; ++attempt) {
    auto started = manager_.startTransientUnit(unit, *properties);
    const bool exists = !started && started.error().code == ErrorCode::kExhausted;
    if (!exists || attempt == kStartAttempts) return started;
    if (auto cleared = clearUnit(unit); !cleared) return cleared;
  }
}

// The job's user can stop the starter, which must not hold up the host. Calls `wait` with a limit
// until it returns true, and continues the starter in between.
bool SystemdProcesses::awaitContinuing(const std::string& unit, const Wait& wait) {
  platform::Duration waited{};
  for (platform::Duration interval = kContinueInterval; waited < kStartTimeOut; interval *= 2) {
    interval = std::min(interval, kStartTimeOut - waited);
    if (wait(interval)) return true;
    manager_.signalAll(unit, SIGCONT);
    waited += interval;
  }
  return false;
}

Result<ProcessId> SystemdProcesses::awaitStarter(const std::string& unit, StarterChannel& channel) {
  auto awaited = SystemdManager::Awaited::kTimedOut;
  awaitContinuing(unit, [&](platform::Duration limit) {
    awaited = manager_.awaitStart(unit, channel.readiness(), limit);
    return awaited != SystemdManager::Awaited::kTimedOut;
  });
  if (awaited == SystemdManager::Awaited::kReadable) {
    if (const auto process = channel.takeReady()) return *process;
  }
  Error why{ErrorCode::kSystem, 0,
            fmt::format("systemd could not start {}", platform::quotedInMessage(unit))};
  if (awaited == SystemdManager::Awaited::kTimedOut) {
    why.osError = ETIMEDOUT;
  } else if (const auto status = manager_.exitStatusOf(unit)) {
    why.context += fmt::format(" (status {})", *status);
    if (const auto stage = setupStageOf(*status); !stage.empty())
      why.context += fmt::format(": {}", stage);
  }
  endUnit(unit);
  return std::unexpected(std::move(why));
}

Result<std::unique_ptr<JobProcess>> SystemdProcesses::takeOver(const StartFields& identity,
                                                               OnEnd onEnd) {
  const std::string groups =
      platform::contentOfKernelFile(fmt::format("/proc/{}/cgroup", identity.process));
  std::string unit = groups.substr(0, groups.find_last_not_of('\n') + 1);
  unit.erase(0, unit.rfind('/') + 1);
  // A process of the other backend, from before the configuration was changed.
  if (!groupOf(unit) || groups.find(slice_ + "/" + unit) == groups.npos) {
    return processes_.takeOver(identity, std::move(onEnd));
  }
  return hold(unit, identity, std::move(onEnd));
}

std::unique_ptr<JobProcess> SystemdProcesses::remainsOf(const StartFields& identity) {
  return processes_.remainsOf(identity);
}

Result<std::vector<std::unique_ptr<MarkedProcess>>> SystemdProcesses::findMarked(
    const Wanted& isWanted) {
  return processes_.findMarked(isWanted, [this](std::string_view process, std::string_view label) {
    const std::string groups =
        platform::contentOfKernelFile(fmt::format("/proc/{}/cgroup", process));
    return isInUnitOf(groups, slice_, label);
  });
}

// The processes get a scope of their own, since systemd keeps a unit in which there are processes.
void SystemdProcesses::abandon(const std::string& label) {
  const std::string unit = unitNameOf(label, true);
  const auto group = groupOf(unit);
  if (!group) return;
  std::vector<std::uint32_t> numbers;
  for (const ProcessId process : group->processes())
    numbers.push_back(static_cast<std::uint32_t>(process));
  if (numbers.empty()) return;
  const std::string scope =
      fmt::format("{}..left-{}.scope", unit.substr(0, unit.rfind('.')), numbers.front());
  static_cast<void>(manager_.startTransientUnit(
      scope,
      {{"Description", "abandoned by " + label}, {"Slice", slice_}, {"PIDs", std::move(numbers)}}));
}

// For a unit that this host has started. If the processes are abandoned, systemd kills the main
// process alone.
void SystemdProcesses::endUnit(const std::string& unit) {
  if (const auto group = groupOf(unit); group && group->isPopulated() && !isAbandoningUnit(unit))
    static_cast<void>(group->kill());
  manager_.release(unit);
}

// A unit without processes was released with the handle of its last process. A unit outside of the
// slice is another's.
void SystemdProcesses::discardUnit(const std::string& unit) {
  const auto group = groupOf(unit);
  if (group && group->isPopulated() && !isAbandoningUnit(unit)) endUnit(unit);
}

void SystemdProcesses::discard(const std::string& label) {
  for (const bool abandonsGroup : {false, true}) {
    const std::string unit = unitNameOf(label, abandonsGroup);
    discardUnit(unit);
    // The unit may still be there: it came to "failed" after its release, or systemd has not read
    // that yet. systemd ignores requests of a host that has ended, so the release must be read.
    // Its effect is not awaited: while the host itself is stopped, systemd stops units after it.
    const auto status = manager_.statusOf(unit);
    const bool isLeft =
        status && status->isLoaded && status->isTransient && status->slice == slice_;
    if (isLeft && status->mainProcess == 0) manager_.releaseAndConfirm(unit);
  }
}

void SystemdProcesses::discardOthers(const std::vector<std::string>& labels) {
  if (!hierarchy_) return;
  std::vector<std::string> kept;
  for (const std::string& label : labels) kept.push_back(unitNameOf(label));
  kept.push_back(hostUnit_);
  std::error_code error;
  const std::string folder = hierarchy_->folderOf("0::" + groupPathOf(slice_) + "\n");
  for (std::filesystem::directory_iterator each(folder, error), end; !error && each != end;
       each.increment(error)) {
    const std::string unit = each->path().filename().string();
    if (!isUnitOfJob(unit) || isAbandoningUnit(unit) || std::ranges::find(kept, unit) != kept.end())
      continue;
    // An administrator can put units of their own into the slice.
    if (const auto status = manager_.statusOf(unit); status && status->isTransient)
      discardUnit(unit);
  }
}

}  // namespace jobhost
