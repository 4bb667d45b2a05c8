#include "JobHost/LastStarts.h"

namespace jobhost {

void LastStarts::keep(const Job& job, platform::Instant earliestStart, platform::Instant now) {
  if (!job.starts.last || earliestStart <= now) return;
  if (entries_.size() >= kMaximumLabels) {
    std::erase_if(entries_, [&](const auto& entry) { return entry.second.until <= now; });
  }
  if (entries_.size() >= kMaximumLabels) return;
  entries_[job.label()] = {job.starts, earliestStart};
}

void LastStarts::lendTo(Job& job, platform::Instant now) const {
  const auto entry = entries_.find(job.label());
  if (entry != entries_.end() && entry->second.until > now) job.starts = entry->second.starts;
}

}  // namespace jobhost
