#include "Platform/Linux/Logging/LogSinkText.h"

#include <array>
#include <cstddef>
#include <cstdint>

namespace platform {
namespace {

bool isContinuation(std::string_view text, std::size_t at) {
  return at < text.size() && (static_cast<unsigned char>(text[at]) & 0xC0U) == 0x80U;
}

// Bytes of the character that begins at `at`, 0 when that is no well-formed UTF-8.
std::size_t sequenceSize(std::string_view text, std::size_t at) {
  const auto byte = [&](std::size_t index) { return static_cast<unsigned char>(text[index]); };
  const unsigned char lead = byte(at);
  if (lead < 0x80) return 1;
  const std::size_t size = lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
  if (lead < 0xC2 || lead > 0xF4) return 0;
  for (std::size_t next = at + 1; next < at + size; ++next)
    if (!isContinuation(text, next)) return 0;
  const unsigned char second = byte(at + 1);
  const bool overlong = (lead == 0xE0 && second < 0xA0) || (lead == 0xF0 && second < 0x90);
  const bool surrogate = lead == 0xED && second > 0x9F;
  const bool tooLarge = lead == 0xF4 && second > 0x8F;
  return overlong || surrogate || tooLarge ? 0 : size;
}

// Characters beyond ASCII that end a line, or direct a terminal, for some readers.
bool isHarmful(std::string_view character) {
  return (character[0] == '\xC2' && static_cast<unsigned char>(character[1]) < 0xA0) ||
         character == "\u2028" || character == "\u2029";
}

void appendHexadecimal(std::string& line, std::string_view bytes) {
  static constexpr std::string_view kDigits = "0123456789abcdef";
  for (const char byte : bytes) {
    const auto value = static_cast<std::uint8_t>(byte);
    line += "\\x";
    line += kDigits[value >> 4U];
    line += kDigits[value & 15U];
  }
}

// ASCII characters that stand for themselves.
constexpr std::array<bool, 256> kPlain = [] {
  std::array<bool, 256> plain{};
  for (std::size_t character = ' '; character < 0x7F; ++character) plain[character] = true;
  plain['\\'] = false;
  return plain;
}();

}  // namespace

void appendEscaped(std::string& line, std::string_view text, std::string_view reserved) {
  for (std::size_t at = 0; at < text.size();) {
    std::size_t end = at;
    while (end < text.size() && kPlain[static_cast<unsigned char>(text[end])] &&
           (reserved.empty() || !reserved.contains(text[end])))
      ++end;
    line += text.substr(at, end - at);
    at = end;
    if (at == text.size()) return;

    const char character = text[at];
    const std::size_t size = sequenceSize(text, at);
    if (size > 1 && !isHarmful(text.substr(at, size))) {
      line += text.substr(at, size);
    } else if (character == '\\') {
      line += "\\\\";
    } else if (character == '\n') {
      line += "\\n";
    } else if (character == '\r') {
      line += "\\r";
    } else if (character == '\t') {
      line += "\\t";
    } else {
      appendHexadecimal(line, text.substr(at, size == 0 ? 1 : size));
    }
    at += size == 0 ? 1 : size;
  }
}

std::string_view levelName(AslLevel level) {
  static constexpr std::array<std::string_view, 8> kNames{
      "Emergency", "Alert", "Critical", "Error", "Warning", "Notice", "Info", "Debug"};
  return kNames[static_cast<std::size_t>(level) % kNames.size()];
}

}  // namespace platform
