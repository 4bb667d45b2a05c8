#pragma once

#include <cstdint>

namespace platform {

// The calling thread's number, which stays the same while the thread lives. Another thread may get
// the number after that.
std::uint32_t mach_thread_self();

}  // namespace platform
