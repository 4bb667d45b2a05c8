#include "JobHost/JobErrors.h"

#include <utility>

namespace jobhost {

using platform::Error;
using platform::ErrorCode;
using platform::LaunchdError;
using platform::NSError;

namespace {

LaunchdError launchdErrorOf(ErrorCode code) {
  switch (code) {
    case ErrorCode::kInvalid:
      return LaunchdError::kInvalidJob;
    case ErrorCode::kDenied:
      return LaunchdError::kNotAuthorized;
    case ErrorCode::kNotFound:
    case ErrorCode::kExhausted:
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
  return jobError(launchdErrorOf(error.code), platform::describe(error));
}

}  // namespace jobhost
