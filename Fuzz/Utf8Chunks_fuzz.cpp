#include <algorithm>
#include <cstdint>
#include <string>

#include <unicode/utf8.h>

#include "Fuzz/Require.h"
#include "Platform/Texts/Utf8.h"
#include "Shared/Categories/NSTaskExtensions.h"

namespace {

// The number of characters of well-formed text; negative for ill-formed text.
std::int64_t charactersIn(const std::string& text) {
  const auto size = static_cast<std::int64_t>(text.size());
  std::int64_t characters = 0;
  for (std::int64_t at = 0; at < size; ++characters) {
    UChar32 character = U_SENTINEL;
    U8_NEXT(text.data(), at, size, character);
    if (character < 0) return -1;
  }
  return characters;
}

}  // namespace

// Splits the text in two chunks at every byte, and keeps the last characters of both.
extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* bytes, std::size_t size) {
  using fuzz::require;
  if (size > 300) return -1;  // The work grows with the square.
  const std::string input(bytes, bytes + size);
  require(!platform::findIllFormedUtf8(input) == (charactersIn(input) >= 0), "what is well-formed");
  for (std::size_t split = 0; split <= size; ++split) {
    const platform::Data chunks[] = {{bytes, bytes + split}, {bytes + split, bytes + size}};
    for (const std::size_t limit : {std::size_t{1}, std::size_t{7}, size}) {
      std::string text;
      std::string whole;
      for (const platform::Data& chunk : chunks) {
        NSTaskExtensions::appendData(&chunk, &text, limit);
        const std::string added(chunk.begin(), chunk.end());
        if (limit > 0 && charactersIn(added) >= 0) whole += added;
      }
      require(whole.ends_with(text), "it is the end of what came");
      const std::int64_t kept = charactersIn(text);
      require(kept >= 0, "it is well-formed");
      const auto most = static_cast<std::int64_t>(limit);
      require(kept == std::min(most, charactersIn(whole)), "it is as long as it may be");
    }
  }
  return 0;
}
