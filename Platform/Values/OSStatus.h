#pragma once

#include <cstdint>

namespace platform {

// The platform's status numbers, as its C calls give them; 0 is success.
using OSStatus = std::int32_t;

// A failed system call: this plus its errno.
inline constexpr OSStatus kErrnoStatusBase = 100'000;

}  // namespace platform
