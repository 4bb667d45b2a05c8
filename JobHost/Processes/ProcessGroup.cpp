#include "JobHost/Processes/ProcessGroup.h"

extern "C" {  // glibc 2.36 declares this header's functions without C linkage.
#include <sys/pidfd.h>
}
#include <cerrno>
#include <charconv>
#include <csignal>
#include <string>

#include "JobHost/Processes/ProcessTable.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {
namespace {

using platform::UniqueFd;

bool isMember(const std::string& stat, const StartFields& leader) {
  const auto membership = membershipIn(stat);
  return membership && membership->group == leader.process &&
         membership->session == leader.process &&
         startTicksIn(stat.data(), stat.size()) >= leader.startTicks;
}

// Returns 0 or the error's number.
int signalMember(std::string_view number, const StartFields& leader, int signal) {
  pid_t process = 0;
  std::from_chars(number.data(), number.data() + number.size(), process);
  const UniqueFd pidfd(::pidfd_open(process, 0));
  if (!pidfd) return errno == EINVAL ? ESRCH : errno;
  // The number may have changed hands before the pidfd was opened.
  const auto stat = statOf(number);
  if (!stat || !isMember(*stat, leader)) return ESRCH;
  return ::pidfd_send_signal(pidfd.get(), signal, nullptr, 0) == 0 ? 0 : errno;
}

}  // namespace

bool groupRemains(const StartFields& leader) {
  const platform::ProcessId group = leader.process;
  if (::kill(-group, 0) != 0 && errno == ESRCH) return false;
  // If a process or a thread has the number now, the group is of its making. The exception is the
  // leader itself, if it has ended and its parent has not reaped it yet.
  const auto stat = statOf(std::to_string(group));
  if (!stat) return true;
  const bool isLeader = startTicksIn(stat->data(), stat->size()) == leader.startTicks;
  if (!stat->empty() && (!isLeader || membershipIn(*stat))) return false;
  bool isOurs = false;
  bool isOlder = false;
  const bool isRead = eachProcess([&](std::string_view, const std::string& each) {
    const auto membership = membershipIn(each);
    if (!membership || membership->group != group) return true;
    isOurs = membership->session == group;
    isOlder = isOlder || startTicksIn(each.data(), each.size()) < leader.startTicks;
    return true;
  });
  // If the processes can't be read for want of descriptors, assume that some remain.
  return !isRead || (isOurs && !isOlder);
}

int signalMembers(const StartFields& leader, int signal) {
  int result = ESRCH;
  eachProcess([&](std::string_view number, const std::string& stat) {
    if (!isMember(stat, leader)) return true;
    const int error = signalMember(number, leader, signal);
    if (error == 0 || (result != 0 && error != ESRCH)) result = error;
    return true;
  });
  return result;
}

}  // namespace jobhost
