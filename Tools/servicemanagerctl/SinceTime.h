#pragma once

#include <optional>
#include <string_view>

#include "Platform/Values/Time.h"

// The time that an operator names: "10 min ago", "2h ago", "14:00", "14:00:30", "today",
// "yesterday", "now", "2026-01-31", "2026-01-31 14:00", "2026-01-31T14:00:00Z" or "@1700000000".
// Times without "Z" are of this machine's zone. A time of day is the last one before `now`. Nothing
// if it is none of these.
std::optional<platform::WallTime> sinceTime(std::string_view text, platform::WallTime now);
