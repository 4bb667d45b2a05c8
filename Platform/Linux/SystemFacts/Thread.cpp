#include "Platform/SystemFacts/Thread.h"

#include <unistd.h>

namespace platform {

std::uint32_t mach_thread_self() {
  // Every log line needs the number; the system call would cost more than writing the line's text.
  static thread_local const auto kNumber = static_cast<std::uint32_t>(::gettid());
  return kNumber;
}

}  // namespace platform
