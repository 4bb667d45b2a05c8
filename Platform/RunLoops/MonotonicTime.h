#pragma once

#include "Platform/Values/Time.h"

namespace platform {

// The clock of the system's run loops, for work on other threads. Objects get it as a function, so
// that a test can set the time. Any thread may call it; it does not block.
Instant monotonicTime();

}  // namespace platform
