#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include <sys/resource.h>
#include <sys/types.h>

namespace jobhost {

// The steps of a child between its start and its program, in this order.
enum class ChildStage : int {
  kBegin,
  kSession,
  kTimers,
  kIdentity,  // reading its own start time
  kDescriptors,
  kLimit,
  kNice,
  kRootDirectory,
  kGroups,
  kGroup,
  kUser,
  kWorkingDirectory,
  kExecute,
};

struct ChildLimit {
  int resource;
  rlimit value;
};

// The instructions for a child that shares its parent's memory, and its result. The parent works
// out everything: the child only makes system calls.
struct SpawnedChild {
  const char* program;
  int programFile;  // executed instead of `program`; -1 for none
  char* const* arguments;
  char* const* environment;
  // The places for the child's number, at the end of a variable, with room for ten digits. Null for
  // none.
  char* listenPid;
  char* markPid;

  // These become 0, 1, 2 and so on. Each number is above the last of those.
  const int* descriptors;
  int descriptorCount;

  const char* rootDirectory;  // null for the host's
  const char* workingDirectory;

  bool changesIds;
  uid_t user;
  gid_t group;
  const gid_t* groups;
  std::size_t groupCount;

  const ChildLimit* limits;
  std::size_t limitCount;
  mode_t umask;
  int nice;        // 0 for the default
  int ioPriority;  // 0 for the default
  bool resetsOomScore;
  bool resetsScheduler;

  // The signals that may not have their default action. Bit 0 is signal 1.
  std::uint64_t signalsToReset;
  bool ignoresBrokenPipe;  // SIGPIPE: a service must not end because the journal does

  // Once the child has its user's ids, other processes of that user may stop it. It gets SIGCONT
  // after `continueAfter` and then after four times as long each, and SIGKILL if it has not
  // executed its program after `startTimeOut`.
  timespec continueAfter;
  timespec startTimeOut;

  int groupMembers;  // "cgroup.procs" of the group that it enters, -1 for none
  int stateFile;     // -1 for none
  std::uint8_t* startRecord;
  std::size_t startRecordSize;
  bool hasUniquePidfds;

  // The errno with which the start could not be recorded, or 0.
  volatile int recordError;
  volatile bool isInGroup;  // if it had to enter one
  // The stage that was reached, and the errno with which it failed, or 0.
  volatile ChildStage stage;
  volatile int error;
  volatile std::size_t failedLimit;
};

// The child's function for clone(). `child` is a SpawnedChild. All signals must be blocked. Returns
// only if a stage failed.
int runSpawnedChild(void* child);

}  // namespace jobhost
