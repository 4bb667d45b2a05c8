#pragma once

#include <cstddef>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Value.h"

namespace platform {

// The kinds of values in a connection's messages. An endpoint is a descriptor, and must be sent
// only to programs that can handle it.
enum class PeerMessageContents { kValues, kValuesAndEndpoints };

// The rules for messages between processes on any transport. Each error is kInvalid and names the
// wrong argument and the place in it.

// Whether `selector` can name a message with this number of arguments.
Result<void> checkPeerSelector(std::string_view selector, std::size_t argumentCount);

// Checks the arguments of a message or an exception against PeerLimits.h and returns the exact size
// of its body in D-Bus's format:
//   boolean b, integer x, real d, string s, data ay, array av, dictionary a{sv}, date (d), and
//   nil and the null marker (y), 0 and 1, endpoint h; each inside a variant. An exception is its
//   reason and name as strings and its user info in a variant.
Result<std::size_t> peerBodyBytes(const Array& arguments,
                                  PeerMessageContents contents = PeerMessageContents::kValues);
Result<std::size_t> peerBodyBytes(const NSException& exception);

// The number of endpoints in a value, each of which is a descriptor. For values that passed the
// check above, because it recurses as deep as they do.
std::size_t endpointsIn(const Value& value);

// The failures that each transport reports in the same words.
inline std::unexpected<NSException> raisedNoAnswer() {
  return raised(kNSPortTimeoutException, "No answer in time.");
}
inline Error connectionEnded() {
  return Error{ErrorCode::kNotFound, 0, "the connection has ended"};
}

}  // namespace platform
