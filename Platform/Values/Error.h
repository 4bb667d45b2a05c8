#pragma once

#include <cstdint>
#include <expected>
#include <string>
#include <utility>

namespace platform {

// The kind of a failure, for callers that distinguish kinds.
enum class ErrorCode {
  kNotFound,   // there is no such object
  kDenied,     // not permitted, or not trusted
  kInvalid,    // malformed input
  kExhausted,  // out of descriptors, memory, space, or over one of our limits
  kChanged,    // another object than the one that was meant is in its place
  kSystem,     // any other failure of a system call, see `osError`
};

// A failure that no direct caller can repair: it is passed up to the function that logs it.
struct Error {
  ErrorCode code = ErrorCode::kSystem;
  int osError = 0;      // errno at the failing call, 0 when no system call was involved
  std::string context;  // the failed action, the place and the expectation; one line, for people
};

// `E` is `Error`, or an enum of outcomes that the direct caller handles and does not pass on.
template <typename T, typename E = Error>
using Result = std::expected<T, E>;

// The failure of malformed input.
inline std::unexpected<Error> invalid(std::string what) {
  return std::unexpected(Error{ErrorCode::kInvalid, 0, std::move(what)});
}

// "CONTEXT" or "CONTEXT: the system's text for osError".
std::string describe(const Error& error);

// The error object that the system's operations return and that log lines show with `%@`.
struct NSError {
  std::string domain;
  std::int64_t code = 0;
  std::string localizedDescription;

  bool operator==(const NSError&) const = default;
};

}  // namespace platform
