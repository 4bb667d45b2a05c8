#include "Shared/Categories/CodePoints.h"

#include <algorithm>
#include <cstring>

namespace CodePoints {
namespace {

// How many bytes from `at` on are certainly ASCII, found several at a time: most text is.
std::size_t asciiRun(std::string_view text, std::size_t at) {
  constexpr std::size_t kBlock = 64;
  const std::size_t start = at;
  for (; text.size() - at >= kBlock; at += kBlock) {
    std::uint64_t words[kBlock / sizeof(std::uint64_t)];
    std::memcpy(words, text.data() + at, kBlock);
    std::uint64_t bits = 0;
    for (const std::uint64_t word : words) bits |= word;
    if (bits & 0x8080808080808080) break;
  }
  return at - start;
}

// Calls `each` with the sizes of pieces and of how many characters they are, until it says no.
template <typename Each>
void pieces(std::string_view text, Each each) {
  for (std::size_t at = 0; at < text.size();) {
    if (const std::size_t run = asciiRun(text, at); run != 0) {
      if (!each(run, run, false)) return;
      at += run;
      continue;
    }
    // Up to the next look for ASCII.
    const std::size_t end = std::min(text.size(), at + 64);
    while (at < end) {
      const std::size_t start = at;
      const bool illFormed = next(text, at) < 0;
      if (!each(at - start, std::size_t{1}, illFormed)) return;
    }
  }
}

}  // namespace

bool areWellFormed(std::string_view text) {
  bool wellFormed = true;
  pieces(text, [&](std::size_t, std::size_t, bool illFormed) {
    wellFormed = !illFormed;
    return wellFormed;
  });
  return wellFormed;
}

std::size_t count(std::string_view text) {
  std::size_t characters = 0;
  pieces(text, [&](std::size_t, std::size_t number, bool) {
    characters += number;
    return true;
  });
  return characters;
}

std::size_t offsetOf(std::size_t index, std::string_view text) {
  std::size_t left = index;
  std::size_t offset = 0;
  pieces(text, [&](std::size_t bytes, std::size_t number, bool) {
    if (number > left) {
      offset += left;  // Inside a run of ASCII, or before a single character.
      return false;
    }
    left -= number;
    offset += bytes;
    return true;
  });
  return offset;
}

}  // namespace CodePoints
