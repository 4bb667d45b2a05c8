#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <set>
#include <string>

#include "JobHost/State/StateRecord.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Values/Value.h"

namespace jobhost {

// The origin of a job, which decides when it is stopped.
enum class JobOrigin : std::uint8_t {
  kLoaded = 1,     // a file of the daemons' folder
  kSubmitted = 2,  // a client
};

// Whether a client's definition replaces a file's.
inline bool isReplacedByClient(JobOrigin before, JobOrigin now) {
  return before == JobOrigin::kLoaded && now == JobOrigin::kSubmitted;
}

// The end of a process.
struct ProcessEnd {
  constexpr ProcessEnd(platform::ExitStatus ended = {}, bool core = false)
      : status(ended), hasCore(core) {}

  platform::ExitStatus status;
  bool hasCore = false;  // the system dumped its memory

  bool operator==(const ProcessEnd&) const = default;
};

// The end of a job's last process. Empty if it can't be known.
using Ending = std::optional<ProcessEnd>;

inline std::optional<platform::ExitStatus> exitStatusOf(const Ending& ending) {
  return ending ? std::optional(ending->status) : std::nullopt;
}

// The labels of daemons whose files are not loaded again in this boot: a client removed the job
// that a file had defined, or replaced it by a definition of its own.
using Labels = std::set<std::string, std::less<>>;

// A job in the state file.
struct StoredJob {
  std::string label;
  JobOrigin origin = JobOrigin::kSubmitted;
  platform::Value dictionary;
  std::size_t submissionBytes = 0;  // size of the record with the dictionary
  std::optional<StartFields> lastStart;
  bool runs = false;              // the last start has no end
  std::optional<Ending> lastEnd;  // absent before the first end
  bool isBeingRemoved = false;

  // The dictionary of a job whose submission can't be read any more: its label alone.
  static platform::Value lostDefinition(const std::string& label) {
    return platform::Dictionary{{"Label", label}};
  }
};

// The wait status for "LastExitStatus".
std::int32_t waitStatusOf(const ProcessEnd& end);
ProcessEnd processEndOf(std::int32_t waitStatus);

}  // namespace jobhost
