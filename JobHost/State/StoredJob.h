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

// Where a job came from, which decides when it is stopped.
enum class JobOrigin : std::uint8_t {
  kLoaded = 1,     // a file of the daemons' folder
  kSubmitted = 2,  // a client
};

// Whether a client puts its own definition in the place of a file's.
inline bool isReplacedByClient(JobOrigin before, JobOrigin now) {
  return before == JobOrigin::kLoaded && now == JobOrigin::kSubmitted;
}

// How a process ended.
struct ProcessEnd {
  constexpr ProcessEnd(platform::ExitStatus ended = {}, bool core = false)
      : status(ended), hasCore(core) {}

  platform::ExitStatus status;
  bool hasCore = false;  // the signal that ended it made the system dump its memory

  bool operator==(const ProcessEnd&) const = default;
};

// How a job's last process ended: nothing where nobody could be told.
using Ending = std::optional<ProcessEnd>;

// The labels of daemons whose files are not loaded again in this boot: a client removed the job
// that one had defined, or put a definition of its own in the place of the file's.
using Labels = std::set<std::string, std::less<>>;

// What the state file knows of a job.
struct StoredJob {
  std::string label;
  JobOrigin origin = JobOrigin::kSubmitted;
  platform::Value dictionary;
  std::size_t submissionBytes = 0;  // what the dictionary's record takes in the file
  std::optional<StartFields> lastStart;
  bool runs = false;              // no end followed the last start
  std::optional<Ending> lastEnd;  // absent before the first end
  bool isBeingRemoved = false;
};

// A wait status, as "LastExitStatus" has it.
std::int32_t waitStatusOf(const ProcessEnd& end);
ProcessEnd processEndOf(std::int32_t waitStatus);

}  // namespace jobhost
