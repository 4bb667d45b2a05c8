#pragma once

#include <cstdint>

#include "Platform/Values/Error.h"

namespace platform {

// Lets this process open as many descriptors as its hard limit allows: every process and connection
// it watches takes one. Returns the soft limit as it was, which the programs it starts must get
// back: those that use select() break with more.
Result<std::uint64_t> raiseDescriptorLimit();

// How many this process may open now: the soft limit.
std::uint64_t softDescriptorLimit();

}  // namespace platform
