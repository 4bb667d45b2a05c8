#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"

namespace platform {

// The timers of a run loop, earliest first. It has no clock; its owner passes the time.
class TimerQueue {
 public:
  using Callback = RunLoop::Callback;

  // The due time of a timer, and its position among timers due at the same instant.
  struct Key {
    Instant due;
    std::uint64_t order = 0;

    auto operator<=>(const Key&) const = default;
  };

  TimerQueue() = default;
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;

  // A period of 0 makes a one-shot timer. The handle must not outlive the queue.
  [[nodiscard]] std::unique_ptr<RunLoopHandle> add(Key key, Duration period, Callback callback);

  bool empty() const { return heap_.empty(); }

  // The next timer to fire; there must be one.
  const Key& earliest() const { return heap_.front().key; }

  // Calls the earliest timer; there must be one. A repeating timer is next due at the first end of
  // a period after `now`. The callback may destroy any timer.
  void fireEarliest(Instant now);

 private:
  class Timer;

  struct Entry {
    Key key;
    Timer* timer;
  };

  void place(std::size_t position, const Entry& entry);
  void siftUp(std::size_t position, const Entry& entry);
  void siftDown(std::size_t position, const Entry& entry);
  void remove(std::size_t position);

  // A heap with four children per node, ordered by key. Each timer knows its position, because many
  // are destroyed before they fire and should not need a search.
  std::vector<Entry> heap_;
};

// The instant `delay` after `now`, at least `now`, and at most the largest instant.
Instant instantAfter(Instant now, Duration delay);

}  // namespace platform
