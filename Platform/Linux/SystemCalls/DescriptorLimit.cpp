#include "Platform/Linux/SystemCalls/DescriptorLimit.h"

#include <algorithm>

#include <sys/resource.h>

#include "Platform/Linux/SystemCalls/SystemCall.h"

namespace platform {

Result<std::uint64_t> raiseDescriptorLimit() {
  rlimit limit{};
  if (::getrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return std::unexpected(systemError("getrlimit(RLIMIT_NOFILE)"));
  }
  const rlim_t before = limit.rlim_cur;
  limit.rlim_cur = limit.rlim_max;
  if (::setrlimit(RLIMIT_NOFILE, &limit) != 0) {
    return std::unexpected(systemError("setrlimit(RLIMIT_NOFILE)"));
  }
  return before;
}

void restoreDescriptorLimit(std::uint64_t soft) {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);  // It can't fail for the calling process.
  limit.rlim_cur = soft;
  ::setrlimit(RLIMIT_NOFILE, &limit);  // Lowering the soft limit can't fail.
}

std::uint64_t softDescriptorLimit() {
  rlimit limit{};
  ::getrlimit(RLIMIT_NOFILE, &limit);  // It can't fail for the calling process.
  return limit.rlim_cur;
}

bool isOfDescriptorReserve(int opened) {
  const std::uint64_t limit = softDescriptorLimit();
  const std::uint64_t reserve = std::min(kDescriptorReserve, limit / 4);
  return static_cast<std::uint64_t>(opened) >= limit - reserve;
}

}  // namespace platform
