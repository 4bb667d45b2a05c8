#include "Platform/Texts/Utf8.h"

#include <algorithm>
#include <cstring>

#include <unicode/utf16.h>
#include <unicode/utf8.h>

namespace platform {
namespace {

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

std::size_t endOfAscii(std::string_view text, std::size_t offset) {
  // Most texts are mainly ASCII, so check many bytes in one step.
  constexpr std::size_t kBlock = 64;
  constexpr std::uint64_t kHighBits = 0x8080'8080'8080'8080;
  for (; text.size() - offset >= kBlock; offset += kBlock) {
    std::uint64_t words[kBlock / sizeof(std::uint64_t)];
    std::memcpy(words, text.data() + offset, kBlock);
    std::uint64_t bits = 0;
    for (const std::uint64_t word : words) bits |= word;
    if ((bits & kHighBits) != 0) break;
  }
  std::uint64_t word = 0;
  for (; text.size() - offset >= sizeof word; offset += sizeof word) {
    std::memcpy(&word, text.data() + offset, sizeof word);
    if ((word & kHighBits) != 0) break;
  }
  while (offset < text.size() && static_cast<unsigned char>(text[offset]) < 0x80) ++offset;
  return offset;
}

std::int32_t nextCharacter(std::string_view text, std::size_t& offset) {
  // The macro needs signed offsets, and a character has at most four bytes.
  const char* at = text.data() + offset;
  const auto available = static_cast<int>(std::min<std::size_t>(text.size() - offset, 4));
  int read = 0;
  UChar32 character = 0;
  U8_NEXT(at, read, available, character);
  offset += static_cast<std::size_t>(read);
  return character;
}

std::string_view cutAtCharacter(std::string_view text, std::size_t size) {
  for (std::size_t end = size; end > 0 && size - end < U8_MAX_LENGTH; --end) {
    if (!U8_IS_TRAIL(text[end])) return text.substr(0, end);
  }
  return text.substr(0, size);  // It is not UTF-8.
}

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
    const std::int32_t character = nextCharacter(text, offset);
    if (U_IS_BMP(character)) {
      units.push_back(static_cast<char16_t>(character));
    } else {
      units.push_back(U16_LEAD(character));
      units.push_back(U16_TRAIL(character));
    }
  }
  return units;
}

}  // namespace platform
