#pragma once

#include <cstddef>
#include <cstdint>

namespace jobhost {

// A record in the state file: this header, then `size` bytes. It has the machine's own byte order,
// since no record outlives its boot.
struct RecordHeader {
  // bootMark() of the boot and pid namespace that the record belongs to. The same bytes in front of
  // every record also let a reader find the next one behind a damaged one.
  std::uint64_t boot = 0;
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
  // The label. A client removed a job that a file had defined: the file is not loaded again in this
  // boot, and the job, if it is known, is being removed. This is one record, because half of it
  // would be wrong.
  kRemovedByClient = 6,
  // The same bytes as kSubmitted. The kind was changed in place when the job's removal began,
  // because a full disk had no room for kRemoving or kRemovedByClient.
  kSubmittedAndRemoving = 7,
  kSubmittedAndRemovedByClient = 8,
};

// The identity of a job's process, by which a later host tells it from any other that may get its
// number in this boot.
struct StartFields {
  std::int32_t process = 0;
  // Not 0 if the definition that it was started with has "AbandonProcessGroup".
  std::uint32_t abandonsGroup = 0;
  std::uint64_t startTicks = 0;  // since boot, in the unit of /proc/PID/stat
  std::uint64_t pidfdInode = 0;  // 0 if the kernel has no unique ones
  std::int64_t startedAt = 0;    // by the run loop's clock

  bool operator==(const StartFields&) const = default;
  // Not every source of an identity tells `abandonsGroup`.
  bool isSameProcessAs(const StartFields& other) const {
    return process == other.process && startTicks == other.startTicks &&
           pidfdInode == other.pidfdInode && startedAt == other.startedAt;
  }
};

struct EndFields {
  std::uint32_t isKnown = 0;
  std::int32_t waitStatus = 0;
};

// FNV-1a: the hash of `bytes` behind those whose hash is `hash`. Safe in a child that shares its
// parent's memory.
inline constexpr std::uint64_t kEmptyHash = 0xcbf29ce484222325;
std::uint64_t hashOn(std::uint64_t hash, const std::uint8_t* bytes, std::size_t size);

// The check of a record whose size, kind and payload are in place. It finds damage, and is no
// protection against forgery. Safe in a child that shares its parent's memory.
std::uint64_t recordCheck(const RecordHeader& header, const std::uint8_t* payload);

// Writes into the record of a start what only the started process knows, and the check. `record`
// holds a header and StartFields at least. Safe in a child that shares its parent's memory.
void completeStartRecord(std::uint8_t* record, std::int32_t process, std::uint64_t startTicks,
                         std::uint64_t pidfdInode);

// The start time in the text of a process's "stat" file, 0 if there is none. Writer and reader of a
// record use this same function. Safe in a child that shares its parent's memory.
std::uint64_t startTicksIn(const char* stat, std::size_t size);

}  // namespace jobhost
