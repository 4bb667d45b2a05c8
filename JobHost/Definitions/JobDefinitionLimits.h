#pragma once

#include <cstddef>
#include <cstdint>

namespace jobhost {

// The bounds of a job's dictionary, each the largest accepted value. A job stays in the host's
// memory and in its state file for as long as it is known.

// The length of a file name: a label may become one.
inline constexpr std::size_t kMaximumLabelBytes = 255;
inline constexpr std::size_t kMaximumUserNameBytes = 255;
inline constexpr std::size_t kMaximumServiceNameBytes = 255;
// Each has a socket, which the host keeps open.
inline constexpr std::size_t kMaximumServices = 64;
// The kernel's limit, without the zero at the end.
inline constexpr std::size_t kMaximumPathBytes = 4095;
inline constexpr std::size_t kMaximumArguments = 1024;
inline constexpr std::size_t kMaximumEnvironmentVariables = 1024;

// The totals of a dictionary, with keys that the host does not know. The kernel rejects a single
// argument of 128 KiB.
inline constexpr std::size_t kMaximumArgumentBytes = 128 * 1024 - 1;
inline constexpr std::size_t kMaximumJobBytes = 256 * 1024;
inline constexpr std::size_t kMaximumJobValues = 8192;
// The depth of nested collections, with the dictionary itself: as deep as a message can carry.
inline constexpr std::size_t kMaximumJobDepth = 16;

// 68 years, the most that a 32-bit number of seconds holds.
inline constexpr std::int64_t kMaximumJobSeconds = INT32_MAX;

}  // namespace jobhost
