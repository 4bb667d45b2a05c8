#pragma once

#include <cstddef>

namespace platform {

// The bounds of what a property list may cost, when read and when written. Each is the largest that
// is accepted.

// The bytes of a list, as it stands in a file. Below the 10 MB at which libxml2 stops on a single
// text, so that this limit, with its own message, is the one met first.
inline constexpr std::size_t kMaxPropertyListBytes = 8 * 1024 * 1024;

// Arrays and dictionaries inside one another; a scalar alone has none. Below the 256 elements at
// which libxml2 stops.
inline constexpr std::size_t kMaxPropertyListDepth = 128;

// The bytes of one tag of XML. libxml2 compares each attribute of a tag with every other: a tag of
// a megabyte took it 36 seconds.
inline constexpr std::size_t kMaxPropertyListTagBytes = 1024;

// Values and keys, each counted as often as it is referred to: in a binary list one array that
// stands in two places counts twice, or 244 bytes could mean 2^60 elements.
inline constexpr std::size_t kMaxPropertyListNodes = 1'000'000;

// The bytes of all strings (as UTF-8), keys and data, counted as often as they are referred to.
inline constexpr std::size_t kMaxPropertyListContentBytes = 16 * 1024 * 1024;

}  // namespace platform
