#include "Platform/Linux/Jobs/EmbeddedAuthorization.h"

#include <algorithm>
#include <cerrno>
#include <chrono>

#include "Platform/Linux/Jobs/JobHostMessages.h"

namespace platform {
namespace {

constexpr Duration kAuthorizationTimeOut = std::chrono::seconds(5);

}  // namespace

// Asks whether the host lets this caller change jobs, and why it can't be asked.
OSStatus EmbeddedAuthorization::askHost() {
  client_.waitAgain();  // Without the host the caller can do nothing at all.
  const auto answer = client_.call(kMayChangeJobsMessage, {}, kAuthorizationTimeOut);
  if (answer) {
    return answer->value.boolean() == true ? errAuthorizationSuccess : errAuthorizationDenied;
  }
  if (answer.error().code == ErrorCode::kDenied) return errAuthorizationDenied;
  const int number = answer.error().osError;
  return kErrnoStatusBase + (number > 0 ? number : ECONNREFUSED);
}

std::expected<std::unique_ptr<AuthorizationRef>, OSStatus>
EmbeddedAuthorization::AuthorizationCreate(AuthorizationFlags) {
  const OSStatus status = askHost();
  if (status > kErrnoStatusBase) return std::unexpected(status);
  return std::make_unique<AuthorizationRef>();
}

OSStatus EmbeddedAuthorization::AuthorizationCopyRights(AuthorizationRef&,
                                                        std::span<const std::string_view> rights,
                                                        AuthorizationFlags flags) {
  const auto isKnown = [](std::string_view right) { return right == kSMRightModifySystemDaemons; };
  if (!(flags & kAuthorizationFlagExtendRights) || !std::ranges::all_of(rights, isKnown)) {
    return errAuthorizationDenied;
  }
  return askHost();
}

}  // namespace platform
