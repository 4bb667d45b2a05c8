#include "Platform/Jobs/JobTree.h"

#include <algorithm>
#include <chrono>

#include "Platform/Jobs/Jobs.h"

namespace platform {

Value valueOfTree(const JobTree& tree) {
  const auto microseconds = std::chrono::duration_cast<std::chrono::microseconds>(tree.cpuTime);
  Dictionary value{{kJobTreeProcessesKey, tree.processes},
                   {kJobTreeCpuTimeKey, static_cast<std::int64_t>(microseconds.count())}};
  if (tree.memoryBytes) value.set(kJobTreeMemoryKey, *tree.memoryBytes);
  return value;
}

std::optional<JobTree> jobTreeIn(const Value& copy) {
  const Value& value = copy[kJobTreeKey];
  if (!value.dictionary()) return std::nullopt;
  // A value from another process: a duration has room for fewer microseconds than a number.
  constexpr std::int64_t kLongest =
      std::chrono::duration_cast<std::chrono::microseconds>(Duration::max()).count();
  const std::int64_t cpuTime = value[kJobTreeCpuTimeKey].integer().value_or(0);
  return JobTree{
      .processes = value[kJobTreeProcessesKey].integer().value_or(0),
      .cpuTime = std::chrono::microseconds(std::clamp(cpuTime, std::int64_t{0}, kLongest)),
      .memoryBytes = value[kJobTreeMemoryKey].integer()};
}

}  // namespace platform
