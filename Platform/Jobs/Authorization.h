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

// The right to submit and remove jobs of the system, the only one there is here.
inline constexpr char kSMRightModifySystemDaemons[] = "com.apple.ServiceManagement.daemons.modify";

using AuthorizationFlags = std::uint32_t;
inline constexpr AuthorizationFlags kAuthorizationFlagDefaults = 0;
inline constexpr AuthorizationFlags kAuthorizationFlagExtendRights = 1 << 1;
inline constexpr AuthorizationFlags kAuthorizationFlagPreAuthorize = 1 << 4;

// The rights that a caller has been granted, and those it may still ask for. Destroying it gives
// them back.
class AuthorizationRef {
 public:
  virtual ~AuthorizationRef() = default;
};

// Who may do what. Nothing is decided here: the right is that of whoever does the work, so it is
// asked, and it looks at the caller's identity, as the kernel gives it, again with each request.
//
// Each call blocks for a bounded time, 5 seconds at most while the job host is being restarted, and
// belongs to the run loop's thread.
class Authorization {
 public:
  virtual ~Authorization() = default;

  // An authorization without any rights, in no environment. Where nobody can be asked for rights,
  // the status says why not: kErrnoStatusBase and an errno.
  [[nodiscard]] virtual std::expected<std::unique_ptr<AuthorizationRef>, OSStatus>
  AuthorizationCreate(AuthorizationFlags flags) = 0;

  // Adds the rights to the authorization, all or none of them. errAuthorizationDenied for an
  // unknown right, for a caller that does not have it, and without kAuthorizationFlagExtendRights;
  // another status where the one who grants it can't be reached any more.
  //
  // kAuthorizationFlagPreAuthorize asks for rights ahead of their use, which is the only way here:
  // nobody is ever shown a question.
  [[nodiscard]] virtual OSStatus AuthorizationCopyRights(AuthorizationRef& authorization,
                                                         std::span<const std::string_view> rights,
                                                         AuthorizationFlags flags) = 0;
};

}  // namespace platform
