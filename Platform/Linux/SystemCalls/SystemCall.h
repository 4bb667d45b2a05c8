#pragma once

#include <cerrno>
#include <string>
#include <utility>

#include "Platform/Linux/SystemCalls/Shortage.h"
#include "Platform/Values/Error.h"

namespace platform {

// The failure of the last system call. Call it before anything can change errno.
inline Error systemError(std::string context, ErrorCode code = ErrorCode::kSystem) {
  const int number = errno;
  return Error{code, number, std::move(context)};
}

// The kind that an errno means wherever it comes from. A call that knows more asks before this.
inline ErrorCode errorCodeOf(int errorNumber) {
  if (isShortage(errorNumber)) return ErrorCode::kExhausted;
  switch (errorNumber) {
    case ENOENT:
    case ENOTDIR:
      return ErrorCode::kNotFound;
    case EACCES:
    case EPERM:
      return ErrorCode::kDenied;
    case ENOSPC:
    case EDQUOT:
      return ErrorCode::kExhausted;
    default:
      return ErrorCode::kSystem;
  }
}

// Repeats a system call while signals interrupt it. Not for close().
template <typename Call>
auto retryOnInterrupt(Call call) {
  auto result = call();
  while (result == -1 && errno == EINTR) result = call();
  return result;
}

}  // namespace platform
