#pragma once

#include "Platform/Processes/ExitWatcher.h"

namespace platform {

constexpr ExitStatus exited(int number) { return {ExitStatus::Kind::kExited, number}; }

inline constexpr ExitStatus kSuccess = exited(0);
// Exit statuses of the operator's command, as its users know them. A second copy, because using the
// tool's own constants would hide a change.
inline constexpr int kFailed = 1;
inline constexpr int kNotUnderstood = 2;

}  // namespace platform
