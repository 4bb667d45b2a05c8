#pragma once

#include <cstdint>
#include <limits>
#include <string_view>

namespace platform {

// The platform's mark for "not found": the largest signed word.
inline constexpr std::int64_t NSNotFound = std::numeric_limits<std::int64_t>::max();

// The number at the beginning of a text, as the platform reads it: white space, an optional sign,
// then decimal digits of any script; the rest is ignored. 0 if there is no digit, and the nearest
// signed 64-bit number if it does not fit.
std::int64_t integerValue(std::string_view text);

}  // namespace platform
