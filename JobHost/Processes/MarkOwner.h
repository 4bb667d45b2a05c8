#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Every user can compute a mark and start a process with it. So it matters who may have made it.

// Nobody knows who made the mark.
inline constexpr platform::UserId kUnknownUser = UINT32_MAX;

// The user who may have made the mark of a process: its real user. A program with the set-user-ID
// bit can change that, and has the environment of whoever started it: then kUnknownUser, as for a
// process that has ended. Fails for want of descriptors.
platform::Result<platform::UserId> ownerOfMark(std::string_view process);

}  // namespace jobhost
