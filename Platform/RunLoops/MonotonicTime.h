#pragma once

#include "Platform/Values/Time.h"

namespace platform {

// The clock of the system's run loops, for what is served on other threads. Given to a subject as a
// function, so that a test decides what it is. Any thread; does not block.
Instant monotonicTime();

}  // namespace platform
