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
  // Gives a new job that of its label, if it still counts.
  void giveTo(Job& job, platform::Instant now);

 private:
  struct Entry {
    platform::RecentStarts starts;
    platform::Instant until;
  };

  std::map<std::string, Entry> entries_;
};

}  // namespace jobhost
