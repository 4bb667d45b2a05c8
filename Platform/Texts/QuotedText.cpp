#include "Platform/Texts/QuotedText.h"

#include <algorithm>

#include <fmt/core.h>
#include <unicode/utf8.h>

#include "Platform/Texts/Utf8.h"

namespace platform {

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

namespace {

std::string shown(std::string_view text, std::size_t maxCharacters) {
  std::string shown;
  std::size_t characters = 0;
  for (std::size_t offset = 0; offset < text.size(); ++characters) {
    if (characters == maxCharacters) return shown + "...";
    const std::size_t begin = offset;
    const std::int32_t character = nextCharacter(text, offset);
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

}  // namespace

std::string shownInMessage(std::string_view text) {
  constexpr std::size_t kMaxCharacters = 60;
  return shown(text, kMaxCharacters);
}

std::string quotedWhole(std::string_view text) { return '"' + shown(text, text.size()) + '"'; }

std::string quotedInMessage(std::string_view text) { return '"' + shownInMessage(text) + '"'; }

}  // namespace platform
