#pragma once

#include <expected>
#include <string>
#include <utility>

#include "Platform/Values/Value.h"

namespace platform {

// An exception that a peer or a facility raised. It travels as a value in a result; nothing throws.
struct NSException {
  std::string name;
  std::string reason;
  Value userInfo;  // a dictionary, or nil

  bool operator==(const NSException&) const = default;
};

// The answer to a message: its result (nil for a method without one), or the exception that it
// raised.
using MessageResult = std::expected<Value, NSException>;

inline constexpr char kNSPortTimeoutException[] = "NSPortTimeoutException";
// The peer has ended, or never existed.
inline constexpr char kNSInvalidSendPortException[] = "NSInvalidSendPortException";
inline constexpr char kNSFailedAuthenticationException[] = "NSFailedAuthenticationException";
// An unknown selector, an argument of the wrong class, or an unusable launch path.
inline constexpr char kNSInvalidArgumentException[] = "NSInvalidArgumentException";

// For functions whose results hold exceptions.
inline std::unexpected<NSException> raised(const char* name, std::string reason) {
  return std::unexpected(NSException{name, std::move(reason), {}});
}
// For calls on a connection that has ended.
inline std::unexpected<NSException> raisedGone() {
  return raised(kNSInvalidSendPortException, "The connection has ended.");
}

}  // namespace platform
