#pragma once

#include <cstdint>

namespace platform {

// The calling thread's number, the same for as long as the thread lives. A number may come back for
// another thread once its thread has ended.
std::uint32_t mach_thread_self();

}  // namespace platform
