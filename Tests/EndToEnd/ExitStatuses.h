#pragma once

#include "Platform/Processes/ExitWatcher.h"

namespace platform {

constexpr ExitStatus exited(int number) { return {ExitStatus::Kind::kExited, number}; }

inline constexpr ExitStatus kSuccess = exited(0);
// What the operator's command ends with.
inline constexpr int kFailed = 1;
inline constexpr int kNotUnderstood = 2;

}  // namespace platform
