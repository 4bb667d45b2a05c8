#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include <unicode/utf8.h>

// UTF-8 as characters. A character is a Unicode code point; in ill-formed text each byte that
// belongs to none counts as one. Pure; any thread; time is linear in the text.
namespace CodePoints {

// Whether the text is well-formed UTF-8 throughout.
bool areWellFormed(std::string_view text);

// How many there are.
std::size_t count(std::string_view text);

// Where the character with this number begins, in bytes; the text's size where it has no such
// character.
std::size_t offsetOf(std::size_t index, std::string_view text);

// The character at the byte `at`, which then moves behind it; negative, and one byte, where the
// text is ill-formed. `at` is less than the text's size.
inline UChar32 next(std::string_view text, std::size_t& at) {
  const std::size_t start = at;
  const auto size = static_cast<std::int64_t>(text.size());
  auto position = static_cast<std::int64_t>(at);
  UChar32 character = U_SENTINEL;
  U8_NEXT(text.data(), position, size, character);
  at = character < 0 ? start + 1 : static_cast<std::size_t>(position);
  return character;
}

// Whether `holds` is true of every character.
template <typename Predicate>
bool all(std::string_view text, Predicate holds) {
  for (std::size_t at = 0; at < text.size();) {
    if (!holds(next(text, at))) return false;
  }
  return true;
}

}  // namespace CodePoints
