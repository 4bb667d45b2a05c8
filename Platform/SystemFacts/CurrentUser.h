#pragma once

#include "Platform/Values/KernelIds.h"

namespace platform {

// Whose rights this program has: those of who started it, and those that count. Any thread.
UserId currentUserId();
UserId currentEffectiveUserId();

}  // namespace platform
