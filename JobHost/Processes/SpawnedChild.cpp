// Runs in a process that shares the host's memory: system calls only, and no code that a sanitizer
// would instrument (see CMakeLists.txt). The host is suspended until the program has been executed
// or this has returned, so its errno may be used.

#include "JobHost/Processes/SpawnedChild.h"

#include <cerrno>
#include <csignal>
#include <ctime>

#include <fcntl.h>
#include <linux/close_range.h>
#include <linux/keyctl.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include "JobHost/State/StateRecord.h"

namespace jobhost {
namespace {

constexpr std::size_t kKernelSignalSetBytes = 8;
constexpr int kPidDigits = 10;
constexpr int kIoPriorityOfProcess = 1;  // IOPRIO_WHO_PROCESS, in no header

// The kernel's structure, which differs from the library's. All zeros is the default action.
struct KernelSignalAction {
  void* handler;
  unsigned long flags;
  void* restorer;
  std::uint64_t mask;
};

int failure(SpawnedChild& child) {
  child.error = errno != 0 ? errno : EIO;
  return 1;
}

// The kernel delivers a process's own timers whatever ids it has by then, even while it is stopped,
// and deletes them when it executes its program.
bool startTimer(int signal, const timespec& after) {
  sigevent event{};
  event.sigev_notify = SIGEV_SIGNAL;
  event.sigev_signo = signal;
  int timer = 0;  // the kernel's id
  if (::syscall(SYS_timer_create, CLOCK_MONOTONIC, &event, &timer) != 0) return false;
  const itimerspec times{{}, after};
  return ::syscall(SYS_timer_settime, timer, 0, &times, nullptr) == 0;
}

// These are separate timers, further and further apart: a repeating timer whose signal is blocked
// or ignored expires only once.
bool startContinuing(const SpawnedChild& child) {
  for (timespec at = child.continueAfter; at.tv_sec < child.startTimeOut.tv_sec;) {
    if (!startTimer(SIGCONT, at)) return false;
    constexpr long kSecond = 1'000'000'000;
    const long nanoseconds = 4 * at.tv_nsec;
    at = {4 * at.tv_sec + nanoseconds / kSecond, nanoseconds % kSecond};
  }
  return true;
}

// The caller's start time, 0 if /proc can't be read.
std::uint64_t ownStartTicks() {
  const long file = ::syscall(SYS_openat, AT_FDCWD, "/proc/self/stat", O_RDONLY | O_CLOEXEC, 0);
  if (file < 0) return 0;
  char text[1024];
  const long size = ::syscall(SYS_read, file, text, sizeof text);
  ::syscall(SYS_close, file);
  return size > 0 ? startTicksIn(text, static_cast<std::size_t>(size)) : 0;
}

std::uint64_t ownPidfdInode(long process) {
  const long pidfd = ::syscall(SYS_pidfd_open, process, 0);
  if (pidfd < 0) return 0;
  struct statx status;
  const long result = ::syscall(SYS_statx, pidfd, "", AT_EMPTY_PATH, STATX_INO, &status);
  ::syscall(SYS_close, pidfd);
  return result == 0 ? status.stx_ino : 0;
}

bool completeRecord(SpawnedChild& child, long process) {
  child.stage = ChildStage::kIdentity;
  errno = 0;
  const std::uint64_t ticks = ownStartTicks();
  if (ticks == 0) return false;
  const std::uint64_t inode = child.hasUniquePidfds ? ownPidfdInode(process) : 0;
  if (child.hasUniquePidfds && inode == 0) return false;
  completeStartRecord(child.startRecord, static_cast<std::int32_t>(process), ticks, inode);
  return true;
}

// A start that can't be recorded, as on a full disk, succeeds all the same: the process's mark
// tells the next host. The host cuts off a partial record.
void writeStartRecord(SpawnedChild& child) {
  if (child.stateFile < 0) return;
  const long written =
      ::syscall(SYS_write, child.stateFile, child.startRecord, child.startRecordSize);
  if (written == static_cast<long>(child.startRecordSize)) return;
  child.recordError = written >= 0 ? ENOSPC : errno;
}

void enterGroup(SpawnedChild& child) {
  if (child.groupMembers < 0) return;
  child.isInGroup = ::syscall(SYS_write, child.groupMembers, "0", 1) == 1;
}

bool placeDescriptors(SpawnedChild& child) {
  child.stage = ChildStage::kDescriptors;
  for (int i = 0; i < child.descriptorCount; ++i) {
    if (::syscall(SYS_dup3, child.descriptors[i], i, 0) < 0) return false;
  }
  // The host sets close-on-exec on all its descriptors, but it may have inherited others.
  return ::syscall(SYS_close_range, child.descriptorCount, ~0U, CLOSE_RANGE_CLOEXEC) == 0;
}

bool setLimits(SpawnedChild& child) {
  child.stage = ChildStage::kLimit;
  for (std::size_t i = 0; i < child.limitCount; ++i) {
    child.failedLimit = i;
    const ChildLimit& limit = child.limits[i];
    if (::syscall(SYS_prlimit64, 0, limit.resource, &limit.value, nullptr) != 0) return false;
  }
  return true;
}

// Failures are ignored: without the permission, the job gets what the host has.
void resetSurroundings(const SpawnedChild& child) {
  ::syscall(SYS_umask, child.umask);
  const sched_param noPriority{};
  if (child.resetsScheduler) ::syscall(SYS_sched_setscheduler, 0, SCHED_OTHER, &noPriority);
  ::syscall(SYS_ioprio_set, kIoPriorityOfProcess, 0, child.ioPriority);
  // Keys of the session in which the host was started are not the job's.
  ::syscall(SYS_keyctl, KEYCTL_JOIN_SESSION_KEYRING, nullptr);
  if (!child.resetsOomScore) return;
  const long file =
      ::syscall(SYS_openat, AT_FDCWD, "/proc/self/oom_score_adj", O_WRONLY | O_CLOEXEC, 0);
  if (file < 0) return;
  ::syscall(SYS_write, file, "0", 1);
  ::syscall(SYS_close, file);
}

// After the scheduler, which forgets the niceness of an idle process.
bool setNiceness(SpawnedChild& child) {
  child.stage = ChildStage::kNice;
  // An ordinary user may not lower the niceness that the host was started with.
  return ::syscall(SYS_setpriority, PRIO_PROCESS, 0, child.nice) == 0 || child.nice == 0;
}

// Groups before the user: without root's capabilities they can't be changed.
bool takeIds(SpawnedChild& child) {
  if (!child.changesIds) return true;
  child.stage = ChildStage::kGroups;
  if (::syscall(SYS_setgroups, child.groupCount, child.groups) != 0) return false;
  child.stage = ChildStage::kGroup;
  if (::syscall(SYS_setresgid, child.group, child.group, child.group) != 0) return false;
  child.stage = ChildStage::kUser;
  return ::syscall(SYS_setresuid, child.user, child.user, child.user) == 0;
}

bool enterFolders(SpawnedChild& child) {
  child.stage = ChildStage::kRootDirectory;
  if (child.rootDirectory) {
    if (::syscall(SYS_chroot, child.rootDirectory) != 0) return false;
    if (::syscall(SYS_chdir, "/") != 0) return false;
  }
  if (!takeIds(child)) return false;
  child.stage = ChildStage::kWorkingDirectory;
  return ::syscall(SYS_chdir, child.workingDirectory) == 0;
}

void resetSignals(std::uint64_t signals, bool ignoresBrokenPipe) {
  // Ignored signals would stay ignored, and until the program is executed a handler of the host
  // would run in the host's memory.
  const KernelSignalAction byDefault{};
  for (int signal = 1; signals != 0; ++signal, signals >>= 1) {
    if ((signals & 1) == 0) continue;
    ::syscall(SYS_rt_sigaction, signal, &byDefault, nullptr, kKernelSignalSetBytes);
  }
  if (ignoresBrokenPipe) {
    const KernelSignalAction ignored{reinterpret_cast<void*>(SIG_IGN), 0, nullptr, 0};
    ::syscall(SYS_rt_sigaction, SIGPIPE, &ignored, nullptr, kKernelSignalSetBytes);
  }
  const std::uint64_t none = 0;
  ::syscall(SYS_rt_sigprocmask, SIG_SETMASK, &none, nullptr, kKernelSignalSetBytes);
}

// Write no leading zeros: some readers take the number for octal then.
void writeNumber(char* place, long number) {
  char reversed[kPidDigits];
  int count = 0;
  for (; number > 0 && count < kPidDigits; number /= 10) {
    reversed[count++] = static_cast<char>('0' + number % 10);
  }
  while (count > 0) *place++ = reversed[--count];
  *place = '\0';
}

bool prepare(SpawnedChild& child) {
  child.stage = ChildStage::kSession;
  if (::syscall(SYS_setsid) < 0) return false;
  child.stage = ChildStage::kTimers;
  if (!startContinuing(child) || !startTimer(SIGKILL, child.startTimeOut)) return false;
  const long process = ::syscall(SYS_getpid);
  enterGroup(child);
  // This comes before the limits, which may forbid the write.
  if (!completeRecord(child, process)) return false;
  writeStartRecord(child);
  if (!placeDescriptors(child)) return false;
  if (!setLimits(child)) return false;
  resetSurroundings(child);
  if (!setNiceness(child)) return false;
  if (!enterFolders(child)) return false;
  if (child.listenPid) writeNumber(child.listenPid, process);
  writeNumber(child.markPid, process);
  return true;
}

}  // namespace

int runSpawnedChild(void* argument) {
  auto& child = *static_cast<SpawnedChild*>(argument);
  if (!prepare(child)) return failure(child);
  resetSignals(child.signalsToReset, child.ignoresBrokenPipe);
  child.stage = ChildStage::kExecute;
  if (child.programFile >= 0) {
    ::syscall(SYS_execveat, child.programFile, "", child.arguments, child.environment,
              AT_EMPTY_PATH);
  } else {
    ::syscall(SYS_execve, child.program, child.arguments, child.environment);
  }
  return failure(child);
}

}  // namespace jobhost
