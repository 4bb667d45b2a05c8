#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"

namespace platform {

// Texts of property lists: encodings, positions, and what an error may quote.

// The offset of the first byte that no well-formed UTF-8 can have there; nothing if there is none.
std::optional<std::size_t> findIllFormedUtf8(std::string_view text);

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

// Where a person finds an offset: both from 1, columns in characters.
struct TextPosition {
  std::size_t line = 1;
  std::size_t column = 1;
};
TextPosition positionInText(std::string_view text, std::size_t offset);

// "NAME:LINE:COLUMN: WHAT", of kind kInvalid.
Error errorInText(std::string_view text, std::size_t offset, std::string_view sourceName,
                  std::string_view what);

// The text between quotes, on one line and short enough for a log: control characters and
// ill-formed bytes as \xNN, and "..." for what is left out of a long one.
std::string quotedInMessage(std::string_view text);

// The same without the quotes.
std::string shownInMessage(std::string_view text);

}  // namespace platform
