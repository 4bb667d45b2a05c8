#pragma once

#include <cstddef>

namespace platform {

// The limits of property lists for reading and for writing. Each is the largest accepted number.

// The bytes of a list in a file.
inline constexpr std::size_t kMaxPropertyListBytes = 8 * 1024 * 1024;

// The depth of nested arrays and dictionaries; a scalar has depth 0.
inline constexpr std::size_t kMaxPropertyListDepth = 128;

// The bytes of one tag of XML. A parser stores all attributes of a tag before it reports them.
inline constexpr std::size_t kMaxPropertyListTagBytes = 1024;

// Values and keys, counted once per reference: an array with two references in a binary list counts
// twice, or 244 bytes could stand for 2^60 elements.
inline constexpr std::size_t kMaxPropertyListNodes = 1'000'000;

// The bytes of all strings (as UTF-8), keys and data, counted once per reference.
inline constexpr std::size_t kMaxPropertyListContentBytes = 16 * 1024 * 1024;

}  // namespace platform
