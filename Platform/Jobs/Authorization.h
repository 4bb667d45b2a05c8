#pragma once

#include <cstdint>
#include <expected>
#include <memory>
#include <span>
#include <string_view>

#include "Platform/Values/OSStatus.h"

namespace platform {

inline constexpr OSStatus errAuthorizationSuccess = 0;
inline constexpr OSStatus errAuthorizationDenied = -60005;

// The right to submit and remove jobs of the system, the only right here.
inline constexpr char kSMRightModifySystemDaemons[] = "com.apple.ServiceManagement.daemons.modify";

using AuthorizationFlags = std::uint32_t;
inline constexpr AuthorizationFlags kAuthorizationFlagDefaults = 0;
inline constexpr AuthorizationFlags kAuthorizationFlagExtendRights = 1 << 1;
inline constexpr AuthorizationFlags kAuthorizationFlagPreAuthorize = 1 << 4;

// The rights that a caller has been granted, and those that it may still request. The destructor
// releases them.
class AuthorizationRef {
 public:
  virtual ~AuthorizationRef() = default;
};

// Grants rights to callers. It decides nothing itself: it asks the job host, which has the right,
// and which checks the caller's kernel credentials again at each request.
//
// Each call blocks for a limited time, for at most 5 seconds while the job host restarts. Belongs
// to the run loop's thread.
class Authorization {
 public:
  virtual ~Authorization() = default;

  // An authorization without rights, in no environment. If the job host can't be reached, the
  // status tells why: kErrnoStatusBase and an errno.
  [[nodiscard]] virtual std::expected<std::unique_ptr<AuthorizationRef>, OSStatus>
  AuthorizationCreate(AuthorizationFlags flags) = 0;

  // Adds all of the rights to the authorization, or none. errAuthorizationDenied for an unknown
  // right, for a caller that does not have it, and without kAuthorizationFlagExtendRights; another
  // status if the job host can't be reached any more.
  //
  // kAuthorizationFlagPreAuthorize requests rights before their use, which is the only way here: no
  // user is ever prompted.
  [[nodiscard]] virtual OSStatus AuthorizationCopyRights(AuthorizationRef& authorization,
                                                         std::span<const std::string_view> rights,
                                                         AuthorizationFlags flags) = 0;
};

}  // namespace platform
