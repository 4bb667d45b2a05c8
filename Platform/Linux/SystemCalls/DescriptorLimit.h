#pragma once

#include <cstdint>

#include "Platform/Values/Error.h"

namespace platform {

// Raises the soft limit of open descriptors to the hard limit: every watched process and connection
// takes one. Returns the old soft limit, which started programs must get back, because programs
// that use select() break with a higher one.
Result<std::uint64_t> raiseDescriptorLimit();

// The soft limit of open descriptors.
std::uint64_t softDescriptorLimit();

}  // namespace platform
