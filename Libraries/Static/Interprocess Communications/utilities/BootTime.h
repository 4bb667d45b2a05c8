#pragma once

#include "Platform/SystemFacts/SystemInformation.h"

// The system's start in seconds since 1970, as a double. If it can't be read: -1.0, and a line on
// standard error that begins with "sysctl: ". Each call reads it again; any thread.
double systemBootTime(const platform::SystemInformation& system);
