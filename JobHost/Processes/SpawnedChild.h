#pragma once

#include <cstddef>
#include <cstdint>
#include <ctime>

#include <sys/resource.h>
#include <sys/types.h>

namespace jobhost {

// What a child does between its birth and its program, in this order.
enum class ChildStage : int {
  kBegin,
  kSession,
  kTimers,
  kIdentity,  // reading its own start time
  kRecord,
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

// The orders for a child that shares its parent's memory, and what became of it. Everything is
// worked out by the parent: the child makes system calls and nothing else.
struct SpawnedChild {
  const char* program;
  char* const* arguments;
  char* const* environment;
  // Where the child's number goes, at the end of one of the variables, with room for ten digits;
  // null for nowhere.
  char* listenPid;

  // Become 0, 1, 2 and so on. All are above the last of these numbers.
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
  int umask;  // -1 for the host's
  int nice;   // 0 for the host's

  // What may not be at its default: bit 0 is signal 1.
  std::uint64_t signalsToReset;

  // Once it has its user's ids, others of that user may stop it. It is told to go on after
  // this time and then after four times as long each, and killed where it has not come to its
  // program after the whole time.
  timespec continueAfter;
  timespec patience;

  int stateFile;
  std::uint8_t* startRecord;
  std::size_t startRecordSize;
  bool hasUniquePidfds;

  // The stage that was reached, and the errno that ended it there; 0 where none did.
  volatile ChildStage stage;
  volatile int error;
  volatile std::size_t failedLimit;
};

// The child, for clone(): `child` is a SpawnedChild. To be started with all signals blocked.
// Returns only where a stage failed.
int runSpawnedChild(void* child);

}  // namespace jobhost
