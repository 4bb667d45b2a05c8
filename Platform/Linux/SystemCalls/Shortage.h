#pragma once

#include <cerrno>

namespace platform {

// Whether a system call failed for want of descriptors or memory, which says nothing of what it was
// asked about: the next time it may succeed.
inline bool isShortage(int errorNumber) {
  return errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOMEM;
}

}  // namespace platform
