#pragma once

#include <chrono>

namespace platform {

using Duration = std::chrono::nanoseconds;

// The clock of a run loop: monotonic, with an epoch of its own. It has no `now()`: the time is
// asked of the loop, so that a test decides what it is.
struct LoopClock {
  using duration = Duration;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<LoopClock>;
  static constexpr bool is_steady = true;
};

using Instant = LoopClock::time_point;

// Civil time, UTC, since 1970-01-01T00:00:00Z without leap seconds. May be stepped at any moment.
using WallTime = std::chrono::sys_time<Duration>;

}  // namespace platform
