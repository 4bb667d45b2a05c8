#pragma once

#include <string>

#include "Platform/Value.h"

namespace platform {

// An exception that a peer or a facility raised. It travels as a value in a result; nothing throws.
struct NSException {
  std::string name;
  std::string reason;
  Value userInfo;  // a dictionary, or nil

  bool operator==(const NSException&) const = default;
};

inline constexpr char kNSPortTimeoutException[] = "NSPortTimeoutException";
// The peer is gone, or was never there.
inline constexpr char kNSInvalidSendPortException[] = "NSInvalidSendPortException";
inline constexpr char kNSFailedAuthenticationException[] = "NSFailedAuthenticationException";
// An unknown selector, an argument of the wrong class, or an unusable launch path.
inline constexpr char kNSInvalidArgumentException[] = "NSInvalidArgumentException";

}  // namespace platform
