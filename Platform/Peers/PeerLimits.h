#pragma once

#include <chrono>
#include <cstddef>

#include "Platform/Values/Time.h"

namespace platform {

// The limits of what any peer may cost us. Each is the largest accepted number.

// The bytes of one message on the socket, with its header. A larger message is sent as a sealed
// memory file of at most kMaxPeerMemoryFileBytes, the limit of a property list's content.
inline constexpr std::size_t kMaxPeerMessageBytes = 1024 * 1024;
inline constexpr std::size_t kMaxPeerMemoryFileBytes = 16 * 1024 * 1024;

// The same for a peer that has not been admitted yet: anybody can make us hold the memory of an
// incomplete message.
inline constexpr std::size_t kMaxUnadmittedPeerMessageBytes = 64 * 1024;

// The room for a message's header with the longest selector or exception's name.
inline constexpr std::size_t kPeerMessageHeaderBytes = 1024;

// The descriptors in one message, and in all unread messages together.
inline constexpr std::size_t kMaxPeerDescriptors = 16;

// The pending calls of one peer, in each direction.
inline constexpr std::size_t kMaxPeerCallsAwaitingReply = 128;

// The bytes that we keep for a peer that does not read them.
inline constexpr std::size_t kMaxPeerUnreadBytes = 1024 * 1024;

// The depth of nested arrays and dictionaries; a scalar has depth 0. D-Bus itself would allow 21.
inline constexpr std::size_t kMaxPeerDepth = 16;

// The values and keys of one message. Four bytes of a message can become a value of a hundred.
inline constexpr std::size_t kMaxPeerNodes = 100'000;

// The arguments of one message, and the characters of a selector.
inline constexpr std::size_t kMaxPeerArguments = 64;
inline constexpr std::size_t kMaxPeerSelectorLength = 255;

// The connections of one listener that have not been admitted, the number of these places that only
// root and our own user may take, and the time for which a connection may keep one.
inline constexpr std::size_t kPeerPlaces = 64;
inline constexpr std::size_t kReservedPeerPlaces = 8;
inline constexpr Duration kPeerAdmissionTime = std::chrono::seconds(5);

// The limits of one user other than root and our own over the whole process, and those of all such
// users together; see PeerAccounts.h.
inline constexpr std::size_t kMaxPeerConnectionsOfUser = 128;
inline constexpr std::size_t kMaxPeerConnectionsOfAllUsers = 256;
inline constexpr std::size_t kMaxPeerBytesOfUser = 4 * 1024 * 1024;
inline constexpr std::size_t kMaxPeerBytesOfAllUsers = 8 * 1024 * 1024;
inline constexpr std::size_t kMaxPeerCallsOfUser = 512;
inline constexpr std::size_t kMaxPeerCallsOfAllUsers = 1024;

// The time in which a message must arrive whole.
inline constexpr Duration kPeerMessageTime = std::chrono::seconds(10);

// The messages of a peer that are read although earlier ones wait to be delivered. A message of a
// hundred bytes takes ten times as much memory, so others stay in the socket.
inline constexpr std::size_t kPeerMessagesReadAhead = 16;

}  // namespace platform
