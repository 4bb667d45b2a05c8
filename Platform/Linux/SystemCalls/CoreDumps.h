#pragma once

#include "Platform/Values/Error.h"

namespace platform {

// From now on this process leaves no core dump, to a file or to a collector, and other processes of
// its user can't read its memory: for programs that hold a secret. A program that is executed from
// here is as any other again.
Result<void> forbidCoreDumps();

}  // namespace platform
