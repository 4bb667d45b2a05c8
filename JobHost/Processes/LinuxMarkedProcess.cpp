#include "JobHost/Processes/LinuxMarkedProcess.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <cerrno>
#include <charconv>
#include <csignal>

#include <fmt/format.h>
#include <poll.h>
#include <sys/stat.h>

#include "JobHost/Processes/JobMark.h"
#include "JobHost/Processes/MarkOwner.h"
#include "JobHost/Processes/ProcessTable.h"
#include "Platform/Linux/SystemCalls/Shortage.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace jobhost {

using platform::Error;
using platform::ErrorCode;
using platform::Result;
using platform::UniqueFd;

namespace {

// A job that has just been started may be executing its program, and would be started twice if its
// process were missed.
MarkReading awaitJobMark(std::string_view process, ExecutionWait& execution) {
  MarkReading reading = readJobMark(process);
  while (reading.isEmpty && isExecuting(statOf(process).value_or("")) && execution.wait())
    reading = readJobMark(process);
  return reading;
}

std::optional<JobMark> markOf(std::string_view process, const LinuxMarkedProcess::Signs& signs) {
  auto mark = awaitJobMark(process, signs.execution).mark;
  if (mark) return mark->host == signs.host ? mark : std::nullopt;
  const auto group = signs.groups ? signs.groups->holding(std::string(process)) : std::nullopt;
  const auto label = group ? JobGroups::labelOf(*group) : std::nullopt;
  if (!label) return std::nullopt;
  mark.emplace().label = *label;
  return mark;
}

// Other users can't put processes into the groups of jobs.
Result<platform::UserId> ownerOf(std::string_view process, const JobMark& mark,
                                 const LinuxMarkedProcess::Signs& signs) {
  if (signs.isInGroupOf && signs.isInGroupOf(process, mark.label)) return platform::UserId{0};
  return ownerOfMark(process);
}

}  // namespace

bool ExecutionWait::wait() {
  if (moments_ == 0) return false;
  --moments_;
  ::poll(nullptr, 0, 1);
  return true;
}

Result<std::unique_ptr<MarkedProcess>> LinuxMarkedProcess::find(std::string_view number,
                                                                const std::string& stat,
                                                                const Signs& signs,
                                                                const Processes::Wanted& isWanted) {
  const auto membership = membershipIn(stat);
  if (!membership) return nullptr;
  const auto mark = markOf(number, signs);
  if (!mark) return nullptr;
  StartFields identity;
  std::from_chars(number.data(), number.data() + number.size(), identity.process);
  identity.startTicks = startTicksIn(stat.data(), stat.size());
  identity.startedAt = mark->startedAt;
  identity.abandonsGroup = mark->abandonsGroup ? 1 : 0;
  // A descendant that its job abandons is nobody's.
  if (mark->abandonsGroup && mark->leader != identity.process) return nullptr;
  const auto owner = ownerOf(number, *mark, signs);
  if (!owner) return std::unexpected(owner.error());
  if (!isWanted({mark->label, identity.process, static_cast<platform::ProcessId>(membership->group),
                 mark->leader, identity.startTicks, *owner})) {
    return nullptr;
  }
  UniqueFd pidfd(::pidfd_open(identity.process, 0));
  if (!pidfd && platform::isShortage(errno)) {
    return std::unexpected(Error{ErrorCode::kExhausted, errno, "pidfd_open"});
  }
  // The number may have changed hands before the pidfd was opened.
  const auto now = pidfd ? statOf(number) : std::nullopt;
  struct stat status{};
  if (!now || startTicksIn(now->data(), now->size()) != identity.startTicks ||
      ::fstat(pidfd.get(), &status) != 0) {
    return nullptr;
  }
  if (pidfdsAreUnique()) identity.pidfdInode = status.st_ino;
  return std::make_unique<LinuxMarkedProcess>(mark->label, identity,
                                              mark->leader == identity.process, std::move(pidfd));
}

bool LinuxMarkedProcess::hasEnded() const {
  pollfd entry{pidfd_.get(), POLLIN, 0};
  return ::poll(&entry, 1, 0) > 0;
}

Result<void> LinuxMarkedProcess::signal(int signal) {
  int result = ::pidfd_send_signal(pidfd_.get(), signal, nullptr, 0);
  if (result == 0 && signal == SIGTERM) {
    result = ::pidfd_send_signal(pidfd_.get(), SIGCONT, nullptr, 0);
  }
  if (result == 0 || errno == ESRCH) return {};
  return std::unexpected(
      platform::systemError(fmt::format("signalling process {}", identity_.process)));
}

}  // namespace jobhost
