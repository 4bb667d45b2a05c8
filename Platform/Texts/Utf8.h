#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// UTF-8 as characters, and UTF-16 into it and out of it.

// The offset of the first byte that no well-formed UTF-8 can have there; nothing if there is none.
std::optional<std::size_t> findIllFormedUtf8(std::string_view text);

// The character at `offset`, which is moved behind it; negative for an ill-formed sequence, of
// which the longest part that could begin a character is skipped. `offset` is less than the text's
// size.
std::int32_t nextCharacter(std::string_view text, std::size_t& offset);

// Where the run of ASCII that begins at `offset` ends.
std::size_t endOfAscii(std::string_view text, std::size_t offset);

// The first `size` bytes of a longer text, less what would be part of a character.
std::string_view cutAtCharacter(std::string_view text, std::size_t size);

// The offset of the first character that XML 1.0 excludes (U+0000 to U+001F but tab, line feed and
// carriage return, U+FFFE, U+FFFF) in well-formed `text`.
std::optional<std::size_t> findCharacterXmlExcludes(std::string_view text);

enum class ByteOrder { kLittleEndian, kBigEndian };

// The text of UTF-16 bytes as UTF-8, or the offset of the first byte of what is no character: half
// a surrogate pair or half a unit.
Result<std::string, std::size_t> utf8FromUtf16(std::span<const std::uint8_t> bytes,
                                               ByteOrder order);

// Well-formed UTF-8 as UTF-16 units.
std::u16string utf16FromUtf8(std::string_view text);

}  // namespace platform
