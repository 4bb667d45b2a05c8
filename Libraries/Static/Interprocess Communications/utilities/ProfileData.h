#pragma once

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Value.h"

// The tokens by which the product's processes on one machine recognize each other: 16 bytes, the
// same in every process until the next boot. Each call builds them from the boot time (-1.0 if it
// can't be read, so that both sides still agree); they are never kept. Any thread.

// The token that a client sends and a server expects.
platform::Data systemProfileData(const platform::SystemInformation& system);

// The token that a server sends and a client expects.
platform::Data clientProfileData(const platform::SystemInformation& system);
