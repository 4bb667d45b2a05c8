#pragma once

#include <cstddef>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Exception.h"
#include "Platform/Values/Value.h"

namespace platform {

// What the values of a connection's messages may be: an endpoint is a descriptor, which only those
// who know what to do with it are to be sent.
enum class PeerMessageContents { kValues, kValuesAndEndpoints };

// What a message between processes may be, whoever carries it. Each error is kInvalid and says
// which argument is wrong, and where in it.

// Whether a selector can name a message with so many arguments.
Result<void> checkPeerSelector(std::string_view selector, std::size_t argumentCount);

// Checks a message's arguments or an exception against PeerLimits.h and returns the exact bytes of
// its body as D-Bus lays it out:
//   boolean b, integer x, real d, string s, data ay, array av, dictionary a{sv}, date (d), and
//   nil and the null marker (y), 0 and 1, endpoint h; each inside a variant. An exception is its
//   reason and name as strings and its user info in a variant.
Result<std::size_t> peerBodyBytes(const Array& arguments,
                                  PeerMessageContents contents = PeerMessageContents::kValues);
Result<std::size_t> peerBodyBytes(const NSException& exception);

// How many endpoints are in a value, each of which is a descriptor. For values that passed the
// check above, since it goes as deep as they do.
std::size_t endpointsIn(const Value& value);

}  // namespace platform
