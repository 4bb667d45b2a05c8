#include "JobHost/Processes/ChildStart.h"

#include <cerrno>
#include <csignal>
#include <cstdint>

#include <fcntl.h>
#include <linux/sched.h>
#include <sched.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace jobhost {
namespace {

using platform::UniqueFd;

#ifdef __x86_64__

// The library has no wrapper. The child begins with an empty stack, so it can't return from here.
long clone3(const clone_args& arguments, int (*function)(void*), void* argument) {
  long result = SYS_clone3;
  register void* childArgument asm("r8") = argument;
  register int (*childFunction)(void*) asm("r9") = function;
  asm volatile(
      "syscall\n\t"
      "testq %%rax, %%rax\n\t"
      "jnz 1f\n\t"
      "xorl %%ebp, %%ebp\n\t"
      "movq %%r8, %%rdi\n\t"
      "callq *%%r9\n\t"
      "movl %%eax, %%edi\n\t"
      "movl %[exit], %%eax\n\t"
      "syscall\n\t"
      "hlt\n"
      "1:"
      : "+a"(result)
      : "D"(&arguments), "S"(sizeof arguments), "r"(childArgument),
        "r"(childFunction), [exit] "i"(SYS_exit)
      : "rcx", "r11", "memory");
  return result;
}

#else

long clone3(const clone_args&, int (*)(void*), void*) { return -ENOSYS; }

#endif

StartedChild cloneIntoGroup(SpawnedChild& child, char* stack, std::size_t stackBytes, int group) {
  int pidfd = -1;
  clone_args arguments{};
  arguments.flags = CLONE_VM | CLONE_VFORK | CLONE_PIDFD | CLONE_INTO_CGROUP;
  arguments.pidfd = reinterpret_cast<std::uintptr_t>(&pidfd);
  arguments.exit_signal = SIGCHLD;
  arguments.stack = reinterpret_cast<std::uintptr_t>(stack);
  arguments.stack_size = stackBytes;
  arguments.cgroup = static_cast<std::uint64_t>(group);
  const long process = clone3(arguments, runSpawnedChild, &child);
  if (process < 0) return {};
  StartedChild started{static_cast<int>(process), UniqueFd(pidfd), true, false};
  started.isKilledInGroup = child.stage == ChildStage::kBegin && child.error == 0;
  if (started.isKilledInGroup) {
    platform::retryOnInterrupt(
        [&] { return ::waitid(P_PIDFD, static_cast<id_t>(pidfd), nullptr, WEXITED | __WALL); });
  }
  return started;
}

}  // namespace

StartedChild startChild(SpawnedChild& child, char* stack, std::size_t stackBytes, int group) {
  child.groupMembers = -1;
  StartedChild started;
  if (group >= 0) started = cloneIntoGroup(child, stack, stackBytes, group);
  if (started.isInGroup && !started.isKilledInGroup) return started;
  const UniqueFd members(group >= 0 ? ::openat(group, "cgroup.procs", O_WRONLY | O_CLOEXEC) : -1);
  child.groupMembers = members.get();
  int pidfd = -1;
  started.process = ::clone(runSpawnedChild, stack + stackBytes,
                            CLONE_VM | CLONE_VFORK | CLONE_PIDFD | SIGCHLD, &child, &pidfd);
  started.pidfd.reset(pidfd);
  started.isInGroup = child.isInGroup;
  return started;
}

}  // namespace jobhost
