#pragma once

#include <cerrno>
#include <string>
#include <utility>

#include "Platform/Values/Error.h"

namespace platform {

// The failure of the last system call. Call it before anything can change errno.
inline Error systemError(std::string context, ErrorCode code = ErrorCode::kSystem) {
  const int number = errno;
  return Error{code, number, std::move(context)};
}

// Repeats a system call while signals interrupt it. Not for close().
template <typename Call>
auto retryOnInterrupt(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

}  // namespace platform
