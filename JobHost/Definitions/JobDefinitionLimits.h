#pragma once

#include <cstddef>
#include <cstdint>

namespace jobhost {

// The bounds of a job's dictionary, each the largest that is accepted. A job stays in the host's
// memory and in its state file for as long as it is known.

// As long as a file name: a label may become one.
inline constexpr std::size_t kMaximumLabelBytes = 255;
inline constexpr std::size_t kMaximumUserNameBytes = 255;
inline constexpr std::size_t kMaximumServiceNameBytes = 255;
// The kernel's, without the zero at the end.
inline constexpr std::size_t kMaximumPathBytes = 4095;
inline constexpr std::size_t kMaximumArguments = 1024;
inline constexpr std::size_t kMaximumEnvironmentVariables = 1024;

// Of all that the dictionary holds, keys that the host does not know included. One argument with
// all of the bytes would be refused by the kernel, at 128 KiB.
inline constexpr std::size_t kMaximumArgumentBytes = 128 * 1024 - 1;
inline constexpr std::size_t kMaximumJobBytes = 256 * 1024;
inline constexpr std::size_t kMaximumJobValues = 8192;
// Collections inside one another, the dictionary itself included: as many as a message can carry.
inline constexpr std::size_t kMaximumJobDepth = 16;

// 68 years, the most that a 32-bit number of seconds holds.
inline constexpr std::int64_t kMaximumJobSeconds = INT32_MAX;

}  // namespace jobhost
