#pragma once

#include <cstdint>
#include <optional>

#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

namespace platform {

// The processes of a job, with all that they have started, as the kernel counts them in their
// control group.
struct JobTree {
  std::int64_t processes = 0;
  Duration cpuTime{};  // also of processes that have ended, of the whole job
  std::optional<std::int64_t> memoryBytes = {};  // empty if the kernel does not count it

  bool operator==(const JobTree&) const = default;
};

// The value of kJobTreeKey.
Value valueOfTree(const JobTree& tree);

// The tree in a copy of a job. Empty if there is none.
std::optional<JobTree> jobTreeIn(const Value& copy);

}  // namespace platform
