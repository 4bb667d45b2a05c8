#pragma once

#include <cstdint>
#include <optional>
#include <string_view>
#include <vector>

#include "Platform/Values/Value.h"

// The lowest major number of the kernel on which a service with this "MinimumOSVersion" may run;
// nothing for an unknown release, or for a value that is not a string. Pure.
std::optional<std::int64_t> kernelMajorNumberForMinimumOSVersion(const platform::Value& version);

// The releases that a "MinimumOSVersion" may name, the oldest first.
std::vector<std::string_view> knownMinimumOSVersions();
