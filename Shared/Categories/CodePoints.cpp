#include "Shared/Categories/CodePoints.h"

#include <algorithm>

#include "Platform/Texts/Utf8.h"

namespace CodePoints {
namespace {

// Calls `each` with the size and the number of characters of each piece, until it returns false.
template <typename Each>
void pieces(std::string_view text, Each each) {
  for (std::size_t at = 0; at < text.size();) {
    const std::size_t ascii = platform::endOfAscii(text, at) - at;
    if (ascii != 0 && !each(ascii, ascii)) return;
    at += ascii;
    // Only then check for ASCII again: in other scripts it comes as single characters.
    const std::size_t end = std::min(text.size(), at + 64);
    while (at < end) {
      const std::size_t start = at;
      next(text, at);
      if (!each(at - start, std::size_t{1})) return;
    }
  }
}

}  // namespace

std::size_t count(std::string_view text) {
  std::size_t characters = 0;
  pieces(text, [&](std::size_t, std::size_t number) {
    characters += number;
    return true;
  });
  return characters;
}

std::size_t offsetOf(std::size_t index, std::string_view text) {
  std::size_t left = index;
  std::size_t offset = 0;
  pieces(text, [&](std::size_t bytes, std::size_t number) {
    if (number > left) {
      offset += left;  // inside a run of ASCII, or before a single character
      return false;
    }
    left -= number;
    offset += bytes;
    return true;
  });
  return offset;
}

}  // namespace CodePoints
