#pragma once

#include <cerrno>

namespace platform {

// Whether a system call failed for lack of descriptors or memory. Such a failure is temporary and
// says nothing about the object of the call.
inline bool isShortage(int errorNumber) {
  return errorNumber == EMFILE || errorNumber == ENFILE || errorNumber == ENOMEM;
}

}  // namespace platform
