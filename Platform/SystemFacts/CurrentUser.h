#pragma once

#include "Platform/Values/KernelIds.h"

namespace platform {

// The real and the effective user of this process. Any thread may call them.
UserId currentUserId();
UserId currentEffectiveUserId();

}  // namespace platform
