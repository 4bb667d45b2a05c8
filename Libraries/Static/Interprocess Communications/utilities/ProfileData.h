#pragma once

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"

// The tokens by which the product's processes on one machine know each other: 16 bytes, the same in
// every process until the next boot. Built anew at every call from the boot time (-1.0 where it
// can't be read, so that both sides still agree), never kept. Any thread.

// What a client sends and a server expects.
platform::Data systemProfileData(const platform::SystemInformation& system);

// What a server sends and a client expects.
platform::Data clientProfileData(const platform::SystemInformation& system);
