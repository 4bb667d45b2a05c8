#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <vector>

#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"

namespace platform {

// The starts and ends of a label's processes, as the job host has counted them since a time. It
// begins with the host, or with the label, and continues when the job is removed and submitted
// again.
struct JobHistory {
  static constexpr std::size_t kMaximumEnds = 10;

  struct End {
    WallTime at;
    std::optional<int> waitStatus;  // empty if nobody can know it
    Duration ran{};                 // from the start of the process

    bool operator==(const End&) const = default;
  };

  WallTime since;
  std::int64_t starts = 0;
  std::int64_t ends = 0;
  std::int64_t crashes =
      0;  // ends by a signal or with another status than 0, that nobody asked for
  std::vector<End> lastEnds;  // the latest ones, oldest first

  // `wasAskedFor`: the job was being removed, or the host stopped. An unknown end is no crash.
  void add(const End& end, bool wasAskedFor);

  bool operator==(const JobHistory&) const = default;
};

enum class JobHistoryDetail { kCounts, kCountsAndEnds };

// The value of kJobHistoryKey.
Value valueOfHistory(const JobHistory& history, JobHistoryDetail detail);

// The history in a copy of a job, or in its state. Empty if there is none.
std::optional<JobHistory> jobHistoryIn(const Value& copy);

Date dateAt(WallTime time);

}  // namespace platform
