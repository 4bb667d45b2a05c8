#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Error.h"

namespace platform {

// The answers of the platform's Gestalt service for a system of this version. "sys1", "sys2" and
// "sys3" are the three numbers. "sysv" packs them as one decimal digit in each 4 bits, two for the
// major number; a number that does not fit is replaced by the largest one (99 or 9). Fails with
// kNotFound for any other selector.
Result<std::int32_t> gestaltOfVersion(const OperatingSystemVersion& version,
                                      std::string_view selector);

}  // namespace platform
