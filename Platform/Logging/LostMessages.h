#pragma once

#include <atomic>
#include <cstdint>

#include "Platform/Logging/LogSink.h"

namespace platform {

// Counts messages that a sink has refused, until the sink has taken a message that tells their
// number. Any thread may use it.
class LostMessages {
 public:
  void count() { number_.fetch_add(1, std::memory_order_relaxed); }

  // The messages that are counted and not yet reported.
  std::uint64_t number() const { return number_.load(std::memory_order_relaxed); }

  // Writes the number as a warning, if there is one, and begins at 0 again. If `sink` refuses the
  // warning, the number stays. `isUrgent` is that of the message that follows, so that both or none
  // of them may use the sink's reserve.
  Result<void> report(LogSink& sink, bool isUrgent);

 private:
  std::atomic<std::uint64_t> number_ = 0;
};

}  // namespace platform
