#pragma once

#include <cstddef>
#include <map>
#include <string>

#include "JobHost/Job.h"
#include "Platform/Values/Time.h"

namespace jobhost {

// The last starts of labels whose jobs were removed, for as long as they delay the next one: a
// service that is switched off and on is not started more often than one that crashes.
class LastStarts {
 public:
  static constexpr std::size_t kMaximumLabels = 16'384;

  // Keeps that of a job that is being removed. It counts until `earliestStart`.
  void keep(const Job& job, platform::Instant earliestStart, platform::Instant now);
  // Gives a new job that of its label, if it still counts, and keeps it in case the job is refused.
  void lendTo(Job& job, platform::Instant now) const;
  // The label has a job, which has its last start.
  void forget(const std::string& label) { entries_.erase(label); }

 private:
  struct Entry {
    platform::RecentStarts starts;
    platform::Instant until;
  };

  std::map<std::string, Entry> entries_;
};

}  // namespace jobhost
