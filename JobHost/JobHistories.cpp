#include "JobHost/JobHistories.h"

#include <utility>

namespace jobhost {

void JobHistories::addJob(const std::string& label, platform::WallTime now) {
  const auto [found, isNew] = entries_.try_emplace(label);
  Entry& entry = found->second;
  if (isNew) {
    entry.history.since = now;
  } else if (entry.unused != unused_.end()) {
    unused_.erase(entry.unused);
  }
  entry.unused = unused_.end();
}

void JobHistories::removeJob(std::string_view label) {
  const auto found = entries_.find(label);
  if (found->second.history.starts == 0 && found->second.history.ends == 0) {
    entries_.erase(found);  // A job that never had a process leaves no trace.
    return;
  }
  found->second.unused = unused_.insert(unused_.end(), found->first);
  if (unused_.size() <= kMaximumUnused) return;
  entries_.erase(unused_.front());
  unused_.pop_front();
}

}  // namespace jobhost
