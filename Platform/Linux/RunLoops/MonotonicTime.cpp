#include "Platform/RunLoops/MonotonicTime.h"

namespace platform {

Instant monotonicTime() { return Instant(std::chrono::steady_clock::now().time_since_epoch()); }

}  // namespace platform
