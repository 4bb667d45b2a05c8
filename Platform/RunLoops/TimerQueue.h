#pragma once

#include <compare>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <vector>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Time.h"

namespace platform {

// The timers of a run loop, earliest first. It has no clock: its owner says what time it is.
class TimerQueue {
 public:
  using Callback = RunLoop::Callback;

  // When a timer is due, and its place among those due at the same instant.
  struct Key {
    Instant due;
    std::uint64_t order = 0;

    auto operator<=>(const Key&) const = default;
  };

  TimerQueue() = default;
  TimerQueue(const TimerQueue&) = delete;
  TimerQueue& operator=(const TimerQueue&) = delete;

  // A period of 0 makes a timer that fires once. The handle must not outlive the queue.
  [[nodiscard]] std::unique_ptr<RunLoopHandle> add(Key key, Duration period, Callback callback);

  bool empty() const { return heap_.empty(); }

  // The timer to fire next; there must be one.
  const Key& earliest() const { return heap_.front().key; }

  // Calls the earliest timer back, of which there must be one. A repeating timer is due again at
  // the first of its periods that ends after `now`. The callback may destroy any timer.
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

  // A heap with four children to a node, ordered by key. Each timer knows its position, so that the
  // many that are destroyed before they fire cost no search.
  std::vector<Entry> heap_;
};

// The instant `delay` after `now`: not before it, and the end of time where the sum goes beyond.
Instant instantAfter(Instant now, Duration delay);

}  // namespace platform
