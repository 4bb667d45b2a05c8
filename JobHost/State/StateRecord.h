#pragma once

#include <cstddef>
#include <cstdint>

namespace jobhost {

// The state file's records as they lie in it: this header, then `size` bytes. In the machine's own
// byte order, since no record outlives the boot that it was written in.
struct RecordHeader {
  std::uint32_t size = 0;
  std::uint32_t kind = 0;  // a RecordKind
  std::uint64_t check = 0;
};

enum class RecordKind : std::uint32_t {
  kSubmitted = 1,  // an origin's byte, then the dictionary as a binary property list
  kStarted = 2,    // StartFields, then the label
  kEnded = 3,      // EndFields, then the label
  kRemoving = 4,   // the label
  kRemoved = 5,    // the label
  // The label: its file is not loaded again in this boot, and the job, where it is known, is being
  // removed. One record, since half of it would be wrong.
  kDismissed = 6,
};

// Which process a job has, so that a later host can tell it from any other that may come to have
// its number in this boot.
struct StartFields {
  std::int32_t process = 0;
  std::uint32_t reserved = 0;
  std::uint64_t startTicks = 0;  // since boot, in the unit of /proc/PID/stat
  std::uint64_t pidfdInode = 0;  // 0 where the kernel has no unique ones
  std::int64_t startedAt = 0;    // on the run loop's clock

  bool operator==(const StartFields&) const = default;
};

struct EndFields {
  std::uint32_t isKnown = 0;
  std::int32_t waitStatus = 0;
};

// The check of a record whose size, kind and payload are in place. It tells a record from what is
// none; it keeps nobody out. Safe in a child that shares its parent's memory.
std::uint64_t recordCheck(const RecordHeader& header, const std::uint8_t* payload);

// Writes what only the started process knows into the record of a start, and its check. `record`
// holds a header and StartFields at least. Safe in a child that shares its parent's memory.
void completeStartRecord(std::uint8_t* record, std::int32_t process, std::uint64_t startTicks,
                         std::uint64_t pidfdInode);

// The start time in the text of a process's "stat" file, 0 where there is none. The same function
// for who writes it and who compares it. Safe in a child that shares its parent's memory.
std::uint64_t startTicksIn(const char* stat, std::size_t size);

}  // namespace jobhost
