#pragma once

#include <cstdint>

#include "Platform/Values/Error.h"

namespace platform {

// Raises the soft limit of open descriptors to the hard limit: every watched process and connection
// takes one. Returns the old soft limit, which started programs must get back, because programs
// that use select() break with a higher one.
Result<std::uint64_t> raiseDescriptorLimit();

// Sets the soft limit back, for a program that replaces this one in its process.
void restoreDescriptorLimit(std::uint64_t soft);

// The soft limit of open descriptors.
std::uint64_t softDescriptorLimit();

// Whether a descriptor that was just opened is one of the last kDescriptorReserve, or of the last
// quarter if the limit is low. The system gives out the lowest number that is free, so few
// descriptors are left then.
inline constexpr std::uint64_t kDescriptorReserve = 64;
bool isOfDescriptorReserve(int opened);

}  // namespace platform
