#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// Characters of UTF-8, and conversions from and to UTF-16.

// The offset of the first byte that makes the text ill-formed UTF-8; std::nullopt if there is none.
std::optional<std::size_t> findIllFormedUtf8(std::string_view text);

// The character at `offset`, which is advanced past it. Negative for an ill-formed sequence; then
// the longest part that could begin a character is skipped. `offset` must be less than the text's
// size.
std::int32_t nextCharacter(std::string_view text, std::size_t& offset);

// The end of the run of ASCII that begins at `offset`.
std::size_t endOfAscii(std::string_view text, std::size_t offset);

// The first `size` bytes of a longer text, without a partial character at the end.
std::string_view cutAtCharacter(std::string_view text, std::size_t size);

// The offset of the first character in well-formed `text` that XML 1.0 excludes: U+0000 to U+001F
// except tab, line feed and carriage return, U+FFFE, and U+FFFF.
std::optional<std::size_t> findCharacterXmlExcludes(std::string_view text);

enum class ByteOrder { kLittleEndian, kBigEndian };

// The UTF-8 text of UTF-16 bytes, or the offset of the first byte that is not part of a character:
// half a surrogate pair or half a unit.
Result<std::string, std::size_t> utf8FromUtf16(std::span<const std::uint8_t> bytes,
                                               ByteOrder order);

// The UTF-16 units of well-formed UTF-8.
std::u16string utf16FromUtf8(std::string_view text);

}  // namespace platform
