#pragma once

#include <cstdint>

namespace platform {

// The platform's status numbers, as its C functions return them; 0 is success.
using OSStatus = std::int32_t;

// The status of a failed system call is this plus its errno.
inline constexpr OSStatus kErrnoStatusBase = 100'000;

}  // namespace platform
