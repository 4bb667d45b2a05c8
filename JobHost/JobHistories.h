#pragma once

#include <cstddef>
#include <list>
#include <map>
#include <string>
#include <string_view>

#include "Platform/Jobs/JobHistory.h"
#include "Platform/Values/Time.h"

namespace jobhost {

// The histories of all labels. That of a label without a job is kept until kMaximumUnused others
// have lost their jobs after it.
class JobHistories {
 public:
  static constexpr std::size_t kMaximumUnused = 1024;

  // The label has a job now. `now` is the beginning of a new history.
  void addJob(const std::string& label, platform::WallTime now);
  void removeJob(std::string_view label);

  // The history of a label with a job.
  platform::JobHistory& of(std::string_view label) { return entries_.find(label)->second.history; }
  const platform::JobHistory& of(std::string_view label) const {
    return entries_.find(label)->second.history;
  }

  std::size_t size() const { return entries_.size(); }

 private:
  using Labels = std::list<std::string>;
  struct Entry {
    platform::JobHistory history;
    Labels::iterator unused;  // end() while the label has a job
  };

  std::map<std::string, Entry, std::less<>> entries_;
  Labels unused_;  // labels without a job, the longest unused first
};

}  // namespace jobhost
