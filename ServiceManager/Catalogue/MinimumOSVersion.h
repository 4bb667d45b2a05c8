#pragma once

#include <cstdint>
#include <optional>

#include "Platform/Values/Value.h"

// The lowest major number of the kernel on which a service with this "MinimumOSVersion" may run;
// nothing for an unknown release, or for a value that is not a string. Pure.
std::optional<std::int64_t> kernelMajorNumberForMinimumOSVersion(const platform::Value& version);
