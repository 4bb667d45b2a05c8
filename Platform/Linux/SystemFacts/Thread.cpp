#include "Platform/SystemFacts/Thread.h"

#include <unistd.h>

namespace platform {

std::uint32_t mach_thread_self() {
  // Every log line asks; the system call would cost more than the line's text.
  static thread_local const auto kNumber = static_cast<std::uint32_t>(::gettid());
  return kNumber;
}

}  // namespace platform
