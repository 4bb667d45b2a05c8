#include "Platform/Jobs/Jobs.h"

#include <limits>

namespace platform {

JobStatus jobStatusIn(const Value& copy) {
  JobStatus status;
  if (!copy.dictionary()) return status;
  status.presence =
      isJobUnknown(copy) ? JobStatus::Presence::kUnknown : JobStatus::Presence::kPresent;
  const std::int64_t process = copy[kJobProcessKey].integer().value_or(0);
  if (process > 0 && process <= std::numeric_limits<ProcessId>::max()) {
    status.process = static_cast<ProcessId>(process);
  }
  status.lastExitStatus = copy[kJobLastStatusKey];
  return status;
}

}  // namespace platform
