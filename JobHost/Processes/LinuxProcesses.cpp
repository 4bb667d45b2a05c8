#include "JobHost/Processes/LinuxProcesses.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <cerrno>
#include <csignal>
#include <optional>
#include <string>
#include <utility>

#include <fcntl.h>
#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include "Platform/Linux/Files/FolderNames.h"
#include "Platform/Linux/Processes/ChildEnd.h"
#include "Platform/Linux/SystemCalls/Shortage.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemFacts/ProcessRecord.h"

namespace jobhost {
namespace {

using platform::Descriptor;
using platform::Error;
using platform::ErrorCode;
using platform::isShortage;
using platform::ProcessId;
using platform::ProcessMembership;
using platform::Result;
using platform::retryOnInterrupt;
using platform::systemError;
using platform::UniqueFd;

// The contents of the process's "stat" file. An empty text if there is no such process, no value if
// the file can't be read.
std::optional<std::string> statOf(std::string_view process) {
  const std::string path = fmt::format("/proc/{}/stat", process);
  const UniqueFd file(retryOnInterrupt([&] { return ::open(path.c_str(), O_RDONLY | O_CLOEXEC); }));
  char text[1024];
  const ssize_t size =
      file ? retryOnInterrupt([&] { return ::read(file.get(), text, sizeof text); }) : -1;
  if (size < 0 && isShortage(errno)) return std::nullopt;
  return size > 0 ? std::string(text, static_cast<std::size_t>(size)) : std::string();
}

// The group and session in a "stat" file, or nothing if the process has ended.
std::optional<ProcessMembership> membershipIn(const std::string& stat) {
  const auto membership = platform::parseProcessMembership(stat);
  if (!membership || membership->state == 'X') return std::nullopt;
  // The state is that of the first thread only, which may end before the others.
  if (membership->state == 'Z' && membership->threads <= 1) return std::nullopt;
  return *membership;
}

// Whether `matches` accepts the "stat" file of any process. True if the processes can't be read.
template <typename Matches>
bool anyProcess(Matches matches) {
  bool isFound = false;
  const auto read = platform::eachNameInFolder("/proc", [&](std::string_view name) {
    if (name.front() < '1' || name.front() > '9') return true;
    const auto stat = statOf(name);
    isFound = !stat || matches(*stat);
    return !isFound;
  });
  return isFound || !read;
}

}  // namespace

Result<std::unique_ptr<LinuxProcesses>> LinuxProcesses::create(
    platform::AsioRunLoop& loop, std::uint64_t originalDescriptorLimit) {
  auto spawner = ProcessSpawner::create(originalDescriptorLimit);
  if (!spawner) return std::unexpected(std::move(spawner.error()));
  std::unique_ptr<LinuxProcesses> processes(new LinuxProcesses(loop, *std::move(spawner)));
  if (auto started = processes->orphans_.start(); !started) {
    return std::unexpected(std::move(started.error()));
  }
  return processes;
}

LinuxProcesses::LinuxProcesses(platform::AsioRunLoop& loop, ProcessSpawner spawner)
    : loop_(loop),
      spawner_(std::move(spawner)),
      orphans_(loop, [this](ProcessId process) { return watched_.contains(process); }) {}

Result<ProcessId> LinuxProcesses::start(const JobDefinition& job, const StartTicket& ticket,
                                        Descriptor listener, OnEnd onEnd) {
  auto spawned = spawner_.spawn(job, ticket, listener);
  if (!spawned) return std::unexpected(std::move(spawned.error()));
  const ProcessId process = spawned->process;
  if (auto watched = watch(process, std::move(spawned->pidfd), std::move(onEnd)); !watched) {
    // Its end would never be reported.
    ::kill(-process, SIGKILL);
    ::waitpid(process, nullptr, __WALL);
    return std::unexpected(std::move(watched.error()));
  }
  return process;
}

Result<void> LinuxProcesses::takeOver(const StartFields& identity, OnEnd onEnd) {
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
  return watch(identity.process, std::move(pidfd), std::move(onEnd));
}

Result<void> LinuxProcesses::watch(ProcessId process, UniqueFd pidfd, OnEnd onEnd) {
  auto source = loop_.watchReadable(pidfd.get(), platform::Urgency::kProcessExit,
                                    [this, process] { ended(process); });
  if (!source) {
    source.error().context.insert(0, fmt::format("watching process {}: ", process));
    return std::unexpected(std::move(source.error()));
  }
  watched_.insert_or_assign(process,
                            Watched{std::move(pidfd), std::move(onEnd), *std::move(source)});
  return {};
}

void LinuxProcesses::ended(ProcessId process) {
  auto node = watched_.extract(process);
  Watched& watched = node.mapped();
  const auto end = platform::reapIfEnded(watched.pidfd.get());
  const Ending ending = end ? Ending(ProcessEnd(end->status, end->dumpedCore)) : std::nullopt;
  watched.source.reset();
  watched.pidfd.reset();
  watched.onEnd(ending);
}

void LinuxProcesses::reportIfEnded(ProcessId process) {
  const auto found = watched_.find(process);
  if (found == watched_.end()) return;
  pollfd entry{found->second.pidfd.get(), POLLIN, 0};
  if (::poll(&entry, 1, 0) > 0) ended(process);
}

void LinuxProcesses::signalGroup(ProcessId group, int signal) { ::kill(-group, signal); }

bool LinuxProcesses::hasRemainingProcesses(const StartFields& identity) {
  const ProcessId group = identity.process;
  if (::kill(-group, 0) != 0 && errno == ESRCH) return false;
  // If a process or a thread has the number now, the group is of its making. The exception is the
  // leader itself, if it has ended and its parent has not reaped it yet.
  const auto stat = statOf(std::to_string(group));
  if (!stat) return true;
  const bool isLeader = startTicksIn(stat->data(), stat->size()) == identity.startTicks;
  if (!stat->empty() && (!isLeader || membershipIn(*stat))) return false;
  bool isOurs = false;
  bool isOlder = false;
  const bool isUnseen = anyProcess([&](const std::string& stat) {
    const auto membership = membershipIn(stat);
    if (!membership || membership->group != group) return false;
    isOurs = membership->session == group;
    isOlder = isOlder || startTicksIn(stat.data(), stat.size()) < identity.startTicks;
    return false;
  });
  // If the processes can't be read for want of descriptors, assume that some remain.
  return isUnseen || (isOurs && !isOlder);
}

UniqueFd LinuxProcesses::copyDescriptor(ProcessId process, Descriptor descriptor) {
  const auto found = watched_.find(process);
  if (found == watched_.end()) return {};
  return UniqueFd(::pidfd_getfd(found->second.pidfd.get(), descriptor, 0));
}

}  // namespace jobhost
