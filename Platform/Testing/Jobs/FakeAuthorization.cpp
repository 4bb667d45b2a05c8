#include "Platform/Testing/Jobs/FakeAuthorization.h"

#include <algorithm>
#include <cerrno>

namespace platform {

std::expected<std::unique_ptr<AuthorizationRef>, OSStatus> FakeAuthorization::AuthorizationCreate(
    AuthorizationFlags flags) {
  created.push_back(flags);
  jobs_.waitAgain();
  if (!jobs_.awaitHost()) return std::unexpected(kErrnoStatusBase + ECONNREFUSED);
  return std::make_unique<AuthorizationRef>();
}

OSStatus FakeAuthorization::AuthorizationCopyRights(AuthorizationRef&,
                                                    std::span<const std::string_view> rights,
                                                    AuthorizationFlags flags) {
  asked.push_back({{rights.begin(), rights.end()}, flags});
  if (!(flags & kAuthorizationFlagExtendRights)) return errAuthorizationDenied;
  if (!std::ranges::all_of(rights,
                           [](auto right) { return right == kSMRightModifySystemDaemons; })) {
    return errAuthorizationDenied;
  }
  jobs_.waitAgain();
  if (!jobs_.awaitHost()) return kErrnoStatusBase + ECONNREFUSED;
  return jobs_.isCallerAllowed() ? errAuthorizationSuccess : errAuthorizationDenied;
}

}  // namespace platform
