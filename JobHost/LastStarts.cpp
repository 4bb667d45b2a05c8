#include "JobHost/LastStarts.h"

namespace jobhost {

void LastStarts::keep(const Job& job, platform::Instant earliestStart, platform::Instant now) {
  if (!job.starts.last || earliestStart <= now) return;
  if (entries_.size() >= kMaximumLabels) {
    std::erase_if(entries_, [&](const auto& entry) { return entry.second.until <= now; });
  }
  if (entries_.size() >= kMaximumLabels) return;
  entries_[job.label] = {job.starts, earliestStart};
}

void LastStarts::giveTo(Job& job, platform::Instant now) {
  const auto node = entries_.extract(job.label);
  if (!node || node.mapped().until <= now) return;
  job.starts = node.mapped().starts;
}

}  // namespace jobhost
