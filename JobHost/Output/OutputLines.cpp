#include "JobHost/Output/OutputLines.h"

#include <algorithm>

#include <fmt/format.h>

namespace jobhost {

void OutputLines::add(std::string_view bytes, platform::Instant now) {
  startTimeIfOver(now);
  changedAt_ = now;
  while (!bytes.empty()) {
    const std::size_t end = bytes.find('\n');
    const std::size_t room = kMaximumBytes - pending_.size();
    const std::size_t taken = std::min({end, bytes.size(), room});
    if (pending_.empty() && end == taken) {
      emit(bytes.substr(0, taken));
    } else {
      pending_ += bytes.substr(0, taken);
      if (end == taken || pending_.size() == kMaximumBytes) endPending();
    }
    bytes.remove_prefix(end == taken ? taken + 1 : taken);
  }
}

void OutputLines::tick(platform::Instant now) {
  startTimeIfOver(now);
  if (!pending_.empty() && now - changedAt_ >= kQuietTime) endPending();
  if (!isOverLimit_) reportLost();
}

void OutputLines::end() {
  bytes_ = 0;
  isOverLimit_ = false;
  if (!pending_.empty()) endPending();
  reportLost();
}

void OutputLines::startTimeIfOver(platform::Instant now) {
  if (bytes_ > 0 && now - begin_ < kTime) return;
  begin_ = now;
  bytes_ = 0;
  isOverLimit_ = false;
  reportLost();
}

void OutputLines::endPending() {
  emit(pending_);
  pending_ = std::string();
}

void OutputLines::emit(std::string_view line) {
  // After the first one that does not fit, a shorter one would be out of its order.
  if (bytes_ + line.size() + kOverhead > kMostBytes) isOverLimit_ = true;
  if (lost_ > 0 || isOverLimit_ || !pass(line)) ++lost_;
}

bool OutputLines::pass(std::string_view line) {
  const std::size_t cost = line.size() + kOverhead;
  if (!take_(line, bytes_ + cost <= kUrgentBytes)) return false;
  bytes_ += cost;
  return true;
}

void OutputLines::reportLost() {
  if (lost_ == 0) return;
  const std::string text =
      fmt::format("[{} {} lost here]", lost_, lost_ == 1 ? "line was" : "lines were");
  if (pass(text)) lost_ = 0;
}

}  // namespace jobhost
