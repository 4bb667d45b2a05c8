#include "JobHost/Processes/LinuxProcess.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <cerrno>
#include <csignal>
#include <utility>

#include <fmt/format.h>
#include <poll.h>

#include "JobHost/Processes/ProcessGroup.h"
#include "Platform/Linux/Processes/ChildEnd.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace jobhost {
namespace {

using platform::Result;

// Newer than our headers: the signal goes to the group of that number, whose members the pidfd
// means also after the leader was reaped. Since Linux 6.9.
constexpr unsigned kToProcessGroup = 1U << 2;

}  // namespace

LinuxProcess::~LinuxProcess() {
  if (isDestroyed_) *isDestroyed_ = true;
  if (!children_) return;
  // If it lives, it is an orphan from now on.
  children_->erase(identity_.process);
  if (hasEnded()) reap();
}

Result<void> LinuxProcess::watch(platform::RunLoop& loop, OnEnd onEnd) {
  auto source =
      loop.watchReadable(pidfd_.get(), platform::Urgency::kProcessExit, [this] { ended(); });
  if (!source) {
    source.error().context.insert(0, fmt::format("watching process {}: ", identity_.process));
    return std::unexpected(std::move(source.error()));
  }
  onEnd_ = std::move(onEnd);
  source_ = *std::move(source);
  return {};
}

void LinuxProcess::becomeParent(Numbers& children) {
  children.insert(identity_.process);
  children_ = &children;
}

bool LinuxProcess::hasEnded() const {
  pollfd entry{pidfd_.get(), POLLIN, 0};
  return !pidfd_ || ::poll(&entry, 1, 0) > 0;
}

void LinuxProcess::reportIfEnded() {
  if (onEnd_ && hasEnded()) ended();
}

void LinuxProcess::ended() {
  source_.reset();
  const auto end = platform::endOfChild(pidfd_.get());
  auto onEnd = std::exchange(onEnd_, nullptr);
  const auto isDestroyed = std::make_shared<bool>(false);
  isDestroyed_ = isDestroyed;
  // Reaped afterwards: until then nothing else can get the number of the group.
  onEnd(end ? Ending(ProcessEnd(end->status, end->dumpedCore)) : std::nullopt);
  if (*isDestroyed) return;
  isDestroyed_.reset();
  reap();
}

void LinuxProcess::reap() {
  if (Numbers* const children = std::exchange(children_, nullptr)) {
    children->erase(identity_.process);
    static_cast<void>(platform::reapIfEnded(pidfd_.get()));
  }
}

// Returns 0 or the error's number.
int LinuxProcess::sendToGroup(int signal) const {
  if (!pidfd_) return signalMembers(identity_, signal);
  if (::pidfd_send_signal(pidfd_.get(), signal, nullptr, kToProcessGroup) == 0) return 0;
  if (errno != EINVAL) return errno;  // EINVAL: an older kernel.
  if (children_) return ::kill(-identity_.process, signal) == 0 ? 0 : errno;
  return signalMembers(identity_, signal);
}

Result<void> LinuxProcess::signalGroup(int signal) {
  int error = sendToGroup(signal);
  if (error == 0 && signal == SIGTERM) error = sendToGroup(SIGCONT);
  if (error == 0 || error == ESRCH) return {};
  errno = error;
  return std::unexpected(
      platform::systemError(fmt::format("signalling process group {}", identity_.process)));
}

Result<void> LinuxProcess::killTree() {
  const auto killed = groups_ ? groups_->kill(controlGroup()) : Result<void>();
  const auto sent = signalGroup(SIGKILL);
  return sent ? killed : sent;
}

Result<void> LinuxProcess::signalLeader(int signal) {
  const auto send = [&](int each) {
    return ::pidfd_send_signal(pidfd_.get(), each, nullptr, 0) == 0 ? 0 : errno;
  };
  int error = pidfd_ ? send(signal) : ESRCH;
  if (error == 0 && signal == SIGTERM) error = send(SIGCONT);
  if (error == 0 || error == ESRCH) return {};
  errno = error;
  return std::unexpected(
      platform::systemError(fmt::format("signalling process {}", identity_.process)));
}

bool LinuxProcess::hasRemainingProcesses() {
  if (!hasEnded()) return false;
  if (groups_ && controlGroup().isPopulated()) return true;
  return sendToGroup(0) != ESRCH && groupRemains(identity_);
}

std::optional<platform::JobTree> LinuxProcess::tree() const {
  if (!groups_) return std::nullopt;
  const auto use = controlGroup().use();
  platform::JobTree tree{.processes = static_cast<std::int64_t>(use.processes),
                         .cpuTime = use.cpuTime,
                         .memoryBytes = {}};
  if (use.memoryBytes) tree.memoryBytes = static_cast<std::int64_t>(*use.memoryBytes);
  return tree;
}

platform::UniqueFd LinuxProcess::copyDescriptor(platform::Descriptor descriptor) {
  if (!pidfd_) return {};
  return platform::UniqueFd(::pidfd_getfd(pidfd_.get(), descriptor, 0));
}

}  // namespace jobhost
