#pragma once

#include <cstddef>

#include "Platform/Values/KernelIds.h"

namespace platform {

// The memory and the descriptors that a process has, as the kernel counts them. A test fails if the
// process has ended.
long privateMemoryOf(ProcessId process);  // in kibibytes
std::size_t descriptorsOf(ProcessId process);

}  // namespace platform
