#pragma once

#include <chrono>

namespace platform {

using Duration = std::chrono::nanoseconds;

// The monotonic clock of a run loop, with an epoch of its own. It has no `now()`: callers ask the
// loop, so that a test can set the time.
struct LoopClock {
  using duration = Duration;
  using rep = duration::rep;
  using period = duration::period;
  using time_point = std::chrono::time_point<LoopClock>;
  static constexpr bool is_steady = true;
};

using Instant = LoopClock::time_point;

// Civil time in UTC since 1970-01-01T00:00:00Z, without leap seconds. It may be stepped at any
// time.
using WallTime = std::chrono::sys_time<Duration>;

}  // namespace platform
