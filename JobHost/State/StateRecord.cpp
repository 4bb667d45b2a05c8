// Part of this runs in a process that shares the host's memory and call stack: no library calls,
// and no code that a sanitizer would instrument (see CMakeLists.txt).

#include "JobHost/State/StateRecord.h"

namespace jobhost {
namespace {

constexpr std::uint64_t kFnvPrime = 0x100000001b3;

// The start time is field 22 of "stat". The first field after the name is field 3.
constexpr int kFieldsBetween = 19;

void copy(std::uint8_t* to, const void* from, std::size_t size) {
  const auto* bytes = static_cast<const std::uint8_t*>(from);
  for (std::size_t i = 0; i < size; ++i) to[i] = bytes[i];
}

}  // namespace

std::uint64_t hashOn(std::uint64_t hash, const std::uint8_t* bytes, std::size_t size) {
  for (std::size_t i = 0; i < size; ++i) hash = (hash ^ bytes[i]) * kFnvPrime;
  return hash;
}

std::uint64_t recordCheck(const RecordHeader& header, const std::uint8_t* payload) {
  std::uint64_t check = kEmptyHash;
  check = hashOn(check, reinterpret_cast<const std::uint8_t*>(&header.boot), sizeof header.boot);
  check = hashOn(check, reinterpret_cast<const std::uint8_t*>(&header.size), sizeof header.size);
  check = hashOn(check, reinterpret_cast<const std::uint8_t*>(&header.kind), sizeof header.kind);
  return hashOn(check, payload, header.size);
}

void completeStartRecord(std::uint8_t* record, std::int32_t process, std::uint64_t startTicks,
                         std::uint64_t pidfdInode) {
  std::uint8_t* const fields = record + sizeof(RecordHeader);
  copy(fields + offsetof(StartFields, process), &process, sizeof process);
  copy(fields + offsetof(StartFields, startTicks), &startTicks, sizeof startTicks);
  copy(fields + offsetof(StartFields, pidfdInode), &pidfdInode, sizeof pidfdInode);
  RecordHeader header;
  copy(reinterpret_cast<std::uint8_t*>(&header), record, sizeof header);
  header.check = recordCheck(header, fields);
  copy(record, &header, sizeof header);
}

std::uint64_t startTicksIn(const char* stat, std::size_t size) {
  // The name may contain parentheses and spaces, so the last parenthesis ends it.
  std::size_t place = size;
  while (place > 0 && stat[place - 1] != ')') --place;
  if (place == 0) return 0;
  for (int spaces = 0; spaces <= kFieldsBetween; ++place) {
    if (place >= size) return 0;
    if (stat[place] == ' ') ++spaces;
  }
  std::uint64_t ticks = 0;
  for (; place < size && stat[place] >= '0' && stat[place] <= '9'; ++place) {
    ticks = 10 * ticks + static_cast<std::uint64_t>(stat[place] - '0');
  }
  return ticks;
}

}  // namespace jobhost
