#pragma once

#include "Platform/SystemFacts/SystemInformation.h"

// When the system started: seconds since 1970 as a double. -1.0, and a line on standard error that
// begins with "sysctl: ", where it can't be read. Read anew at every call; any thread.
double systemBootTime(const platform::SystemInformation& system);
