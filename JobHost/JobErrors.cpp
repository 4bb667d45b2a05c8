#include "JobHost/JobErrors.h"

#include <utility>

namespace jobhost {

using platform::Error;
using platform::ErrorCode;
using platform::LaunchdError;
using platform::NSError;

namespace {

LaunchdError launchdErrorOf(const Error& error) {
  switch (error.code) {
    case ErrorCode::kInvalid:
      return LaunchdError::kInvalidJob;
    case ErrorCode::kDenied:
      return LaunchdError::kNotAuthorized;
    case ErrorCode::kChanged:
      return LaunchdError::kProgramChanged;
    case ErrorCode::kExhausted:
      if (error.osError == 0) return LaunchdError::kHostIsFull;
      break;
    case ErrorCode::kNotFound:
    case ErrorCode::kSystem:
      break;
  }
  return LaunchdError::kInternal;
}

}  // namespace

NSError jobError(LaunchdError code, std::string text) {
  return {platform::kCFErrorDomainLaunchd, static_cast<std::int64_t>(code), std::move(text)};
}

NSError jobError(const Error& error) {
  return jobError(launchdErrorOf(error), platform::describe(error));
}

}  // namespace jobhost
