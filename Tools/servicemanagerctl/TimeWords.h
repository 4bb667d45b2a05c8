#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "Platform/Values/KernelIds.h"
#include "Platform/Values/Time.h"

// Times for people and for programs.

// "3 s", "12 min", "5 h", "4 d". A time in the future is "0 s".
std::string ageInWords(platform::Duration age);

// "2026-01-31T12:00:00Z", with the fraction of the second if there is one.
std::string timeAsText(platform::WallTime time);

// When the process began; nothing if there is no such process, or this user may not know.
std::optional<platform::WallTime> startOfProcess(platform::ProcessId process,
                                                 platform::WallTime now);

// The same from the text of the process's "stat" file. `ticksNow` is the present in ticks since the
// start of the system.
std::optional<platform::WallTime> startInStat(const std::string& stat, std::int64_t ticksNow,
                                              std::int64_t ticksPerSecond, platform::WallTime now);
