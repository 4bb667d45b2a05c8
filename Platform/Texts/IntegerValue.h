#pragma once

#include <cstdint>
#include <limits>
#include <string_view>

namespace platform {

// The platform's mark for "not found": the largest signed word.
inline constexpr std::int64_t NSNotFound = std::numeric_limits<std::int64_t>::max();

// The number that a text begins with, as the platform reads it: white space, then a sign or none,
// then decimal digits of any script; whatever follows does not matter. 0 without a digit, the
// nearest signed 64-bit number where it does not fit.
std::int64_t integerValue(std::string_view text);

}  // namespace platform
