#pragma once

#include <cstddef>
#include <cstdint>
#include <string_view>

#include "Platform/Texts/Utf8.h"

// UTF-8 as characters. A character is a Unicode code point; in ill-formed text each byte that
// belongs to none counts as one. Pure; any thread; time is linear in the text.
namespace CodePoints {

// The number of characters.
std::size_t count(std::string_view text);

// The offset in bytes of the character with this number; the text's size if there is none.
std::size_t offsetOf(std::size_t index, std::string_view text);

// The character at the byte `at`, which advances past it; negative, and one byte, if the text is
// ill-formed there. `at` is less than the text's size.
inline std::int32_t next(std::string_view text, std::size_t& at) {
  const std::size_t start = at;
  const std::int32_t character = platform::nextCharacter(text, at);
  if (character < 0) at = start + 1;
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
