#pragma once

#include <cstdint>
#include <string_view>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Every user can compute a mark and start a process with it. So it matters who may have made it.

// Nobody knows who made the mark.
inline constexpr platform::UserId kUnknownUser = UINT32_MAX;

// The user who may have made the mark of a process: its real user. A program that has gained rights
// when it was executed, as by the set-user-ID bit, has the environment of the user who started it,
// and may have become root or the host's user since: then kUnknownUser, as for a process that has
// ended. Fails for want of descriptors.
platform::Result<platform::UserId> ownerOfMark(std::string_view process);

// Whether the kernel says in a process's auxiliary vector that its program has more rights than the
// process had before. True if the vector does not say so in the form of 64 or 32 bits.
bool hasGainedRights(std::string_view vector);

}  // namespace jobhost
