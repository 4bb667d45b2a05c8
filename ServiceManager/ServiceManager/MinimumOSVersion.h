#pragma once

#include <cstdint>
#include <optional>
#include <string_view>

// The lowest major number of the kernel on which a service with this "MinimumOSVersion" may run;
// nothing for a release that is not known. Pure.
std::optional<std::int64_t> kernelMajorNumberForMinimumOSVersion(std::string_view version);
