#pragma once

#include <chrono>
#include <cstddef>

#include "Platform/Values/Time.h"

namespace platform {

// What a peer may cost us, whoever it is. Each is the largest that is accepted.

// The bytes of one message as it stands on the socket, header included. What is larger travels as a
// sealed memory file of at most kMaxPeerMemoryFileBytes, which is as much as a property list may
// hold.
inline constexpr std::size_t kMaxPeerMessageBytes = 1024 * 1024;
inline constexpr std::size_t kMaxPeerMemoryFileBytes = 16 * 1024 * 1024;

// The same for a peer that has not been admitted yet: a message under way is memory that anybody
// can make us hold.
inline constexpr std::size_t kMaxUnadmittedPeerMessageBytes = 64 * 1024;

// The room for a message's header, with a selector and an exception's name of the greatest length.
inline constexpr std::size_t kPeerMessageHeaderBytes = 1024;

// The descriptors that come with one message, and with all that are unread.
inline constexpr std::size_t kMaxPeerDescriptors = 16;

// Calls of one peer that wait for their answer, in each direction.
inline constexpr std::size_t kMaxPeerCallsAwaitingReply = 128;

// The bytes that we keep for a peer that does not read them.
inline constexpr std::size_t kMaxPeerUnreadBytes = 1024 * 1024;

// Arrays and dictionaries inside one another; a scalar alone has none. D-Bus itself ends at 21.
inline constexpr std::size_t kMaxPeerDepth = 16;

// Values and keys of one message. Four bytes of a message can become a value of a hundred.
inline constexpr std::size_t kMaxPeerNodes = 100'000;

// The arguments of one message, and the characters of a selector.
inline constexpr std::size_t kMaxPeerArguments = 64;
inline constexpr std::size_t kMaxPeerSelectorLength = 255;

// Connections of one listener that have not been admitted, how many of these places only root and
// our own user may take, and how long a connection may keep one.
inline constexpr std::size_t kPeerPlaces = 64;
inline constexpr std::size_t kKeptPeerPlaces = 8;
inline constexpr Duration kPeerAdmissionTime = std::chrono::seconds(5);

// Connections of one listener that a user other than root and our own may hold: each may have one
// message queued and one under way.
inline constexpr std::size_t kMaxPeerConnectionsPerUser = 256;

}  // namespace platform
