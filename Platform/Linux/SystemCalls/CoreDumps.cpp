#include "Platform/Linux/SystemCalls/CoreDumps.h"

#include <sys/prctl.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

Result<void> forbidCoreDumps() {
  // A limit on the size of core dumps would not bind a collector that the kernel pipes them to.
  if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0) return {};
  return std::unexpected(systemError("forbidding core dumps"));
}

}  // namespace platform
