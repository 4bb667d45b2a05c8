#pragma once

#include <cstdint>

// The operating modes, each with the services that the daemon may evaluate in it.

// The primary service is up: all services.
inline constexpr std::int64_t ORBOperatingModeNormal = 0;
// An installer is at work: none.
inline constexpr std::int64_t ORBOperatingModeInstaller = 1;
// The primary service can't be reached: none, since every decision needs its settings.
inline constexpr std::int64_t ORBOperatingModeWaitingForPrimaryService = 2;
