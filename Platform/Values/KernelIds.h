#pragma once

#include <cstdint>

namespace platform {

// The kernel's number of a process. It is used again after the process has been reaped.
using ProcessId = std::int32_t;

using UserId = std::uint32_t;

}  // namespace platform
