#pragma once

#include <cstdint>

namespace platform {

// By which the kernel knows a process. The number is given to another one when the process is gone.
using ProcessId = std::int32_t;

using UserId = std::uint32_t;

}  // namespace platform
