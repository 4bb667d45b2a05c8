#include "Platform/Linux/SystemCalls/CoreDumps.h"

#include <sys/prctl.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

Result<void> forbidCoreDumps() {
  // RLIMIT_CORE would not stop a collector to which the kernel pipes core dumps.
  if (::prctl(PR_SET_DUMPABLE, 0, 0, 0, 0) == 0) return {};
  return std::unexpected(systemError("forbidding core dumps"));
}

}  // namespace platform
