#pragma once

#include <cstdint>

// What the daemon may evaluate at present.

// The primary service is up: everything.
inline constexpr std::int64_t ORBOperatingModeNormal = 0;
// An installer is at work: nothing.
inline constexpr std::int64_t ORBOperatingModeInstaller = 1;
// The primary service can't be reached: nothing, since every decision needs its settings.
inline constexpr std::int64_t ORBOperatingModeWaitingForPrimaryService = 2;
