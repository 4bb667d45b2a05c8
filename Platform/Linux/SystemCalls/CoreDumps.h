#pragma once

#include "Platform/Values/Error.h"

namespace platform {

// From now on this process leaves no core dump, neither in a file nor for a collector, and other
// processes of its user can't read its memory. For programs that hold a secret. A program that is
// executed from here starts without these restrictions.
Result<void> forbidCoreDumps();

}  // namespace platform
