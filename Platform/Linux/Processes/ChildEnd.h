#pragma once

#include <optional>

#include "Platform/Processes/ExitWatcher.h"

namespace platform {

// How a child of ours ended.
struct ChildEnd {
  ExitStatus status;
  bool dumpedCore = false;
};

// Reaps the process of this pidfd without blocking. Nothing if it has not ended, is another
// process's child, or has been reaped.
std::optional<ChildEnd> reapIfEnded(int pidfd);

// The same without reaping it, so that its number stays its own.
std::optional<ChildEnd> endOfChild(int pidfd);

}  // namespace platform
