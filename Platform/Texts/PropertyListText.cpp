#include "Platform/Texts/PropertyListText.h"

#include <algorithm>
#include <cstring>

#include <fmt/core.h>
#include <unicode/utf16.h>
#include <unicode/utf8.h>

namespace platform {
namespace {

// Where the run of ASCII that begins at `offset` ends: nearly all of a list is ASCII, and eight
// bytes are looked at in one step.
std::size_t endOfAscii(std::string_view text, std::size_t offset) {
  constexpr std::uint64_t kHighBits = 0x8080'8080'8080'8080;
  std::uint64_t block = 0;
  for (; text.size() - offset >= sizeof block; offset += sizeof block) {
    std::memcpy(&block, text.data() + offset, sizeof block);
    if ((block & kHighBits) != 0) break;
  }
  while (offset < text.size() && static_cast<unsigned char>(text[offset]) < 0x80) ++offset;
  return offset;
}

// The character at `offset`, which is moved behind it; negative for an ill-formed sequence. The
// macro wants signed offsets, and a character has at most four bytes.
UChar32 nextCharacter(std::string_view text, std::size_t& offset) {
  const char* at = text.data() + offset;
  const auto available = static_cast<int>(std::min<std::size_t>(text.size() - offset, 4));
  int read = 0;
  UChar32 character = 0;
  U8_NEXT(at, read, available, character);
  offset += static_cast<std::size_t>(read);
  return character;
}

void appendCharacter(std::string& text, UChar32 character) {
  char bytes[U8_MAX_LENGTH];
  int length = 0;
  U8_APPEND_UNSAFE(bytes, length, character);
  text.append(bytes, static_cast<std::size_t>(length));
}

bool xmlExcludes(UChar32 character) {
  if (character < 0x20) return character != '\t' && character != '\n' && character != '\r';
  return character == 0xFFFE || character == 0xFFFF;
}

}  // namespace

std::optional<std::size_t> findIllFormedUtf8(std::string_view text) {
  std::size_t offset = endOfAscii(text, 0);
  while (offset < text.size()) {
    const std::size_t begin = offset;
    if (nextCharacter(text, offset) < 0) return begin;
    offset = endOfAscii(text, offset);
  }
  return std::nullopt;
}

std::optional<std::size_t> findCharacterXmlExcludes(std::string_view text) {
  for (std::size_t offset = 0; offset < text.size();) {
    const std::size_t begin = offset;
    if (xmlExcludes(nextCharacter(text, offset))) return begin;
  }
  return std::nullopt;
}

Result<std::string, std::size_t> utf8FromUtf16(std::span<const std::uint8_t> bytes,
                                               ByteOrder order) {
  const std::size_t high = order == ByteOrder::kBigEndian ? 0 : 1;
  const auto unit = [bytes, high](std::size_t at) {
    return static_cast<char16_t>(bytes[at + high] << 8 | bytes[at + 1 - high]);
  };
  std::string text;
  text.reserve(bytes.size() / 2);
  for (std::size_t at = 0; at < bytes.size(); at += 2) {
    if (bytes.size() - at < 2) return std::unexpected(at);
    const char16_t first = unit(at);
    if (!U16_IS_SURROGATE(first)) {
      appendCharacter(text, first);
      continue;
    }
    const bool paired = U16_IS_LEAD(first) && bytes.size() - at >= 4 && U16_IS_TRAIL(unit(at + 2));
    if (!paired) return std::unexpected(at);
    appendCharacter(text, U16_GET_SUPPLEMENTARY(first, unit(at + 2)));
    at += 2;
  }
  return text;
}

std::u16string utf16FromUtf8(std::string_view text) {
  std::u16string units;
  units.reserve(text.size());
  for (std::size_t offset = 0; offset < text.size();) {
    const UChar32 character = nextCharacter(text, offset);
    if (U_IS_BMP(character)) {
      units.push_back(static_cast<char16_t>(character));
    } else {
      units.push_back(U16_LEAD(character));
      units.push_back(U16_TRAIL(character));
    }
  }
  return units;
}

TextPosition positionInText(std::string_view text, std::size_t offset) {
  const std::string_view before = text.substr(0, offset);
  TextPosition position;
  position.line += static_cast<std::size_t>(std::ranges::count(before, '\n'));
  const std::size_t lineBreak = before.rfind('\n');
  const std::string_view line =
      lineBreak == std::string_view::npos ? before : before.substr(lineBreak + 1);
  position.column += static_cast<std::size_t>(
      std::ranges::count_if(line, [](char byte) { return !U8_IS_TRAIL(byte); }));
  return position;
}

Error errorInText(std::string_view text, std::size_t offset, std::string_view sourceName,
                  std::string_view what) {
  const TextPosition position = positionInText(text, offset);
  return Error{ErrorCode::kInvalid, 0,
               fmt::format("{}:{}:{}: {}", sourceName, position.line, position.column, what)};
}

std::string shownInMessage(std::string_view text) {
  constexpr std::size_t kMaxCharacters = 60;
  std::string shown;
  std::size_t characters = 0;
  for (std::size_t offset = 0; offset < text.size(); ++characters) {
    if (characters == kMaxCharacters) return shown + "...";
    const std::size_t begin = offset;
    const UChar32 character = nextCharacter(text, offset);
    const std::string_view bytes = text.substr(begin, offset - begin);
    if (character >= 0x20 && character != 0x7F) {
      shown += bytes;
      continue;
    }
    for (const char byte : bytes) {
      shown += fmt::format("\\x{:02x}", static_cast<unsigned char>(byte));
    }
  }
  return shown;
}

std::string quotedInMessage(std::string_view text) { return '"' + shownInMessage(text) + '"'; }

}  // namespace platform
