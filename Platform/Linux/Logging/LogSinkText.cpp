#include "Platform/Linux/Logging/LogSinkText.h"

#include <array>
#include <chrono>
#include <cstddef>
#include <cstdint>

#include "Platform/Texts/Utf8.h"

namespace platform {
namespace {

// Characters beyond ASCII that some readers treat as line ends or terminal controls.
bool isHarmful(std::int32_t character) {
  return (character >= 0x80 && character < 0xA0) || character == 0x2028 || character == 0x2029;
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

    const std::int32_t character = nextCharacter(text, end);
    if (character < 0) end = at + 1;
    const std::string_view bytes = text.substr(at, end - at);
    if (character >= 0x80 && !isHarmful(character)) {
      line += bytes;
    } else if (character == '\\') {
      line += "\\\\";
    } else if (character == '\n') {
      line += "\\n";
    } else if (character == '\r') {
      line += "\\r";
    } else if (character == '\t') {
      line += "\\t";
    } else {
      appendHexadecimal(line, bytes);
    }
    at = end;
  }
}

std::string_view levelName(AslLevel level) {
  static constexpr std::array<std::string_view, 8> kNames{
      "Emergency", "Alert", "Critical", "Error", "Warning", "Notice", "Info", "Debug"};
  return kNames[static_cast<std::size_t>(level) % kNames.size()];
}

timespec timeOf(const LogRecord& record) {
  timespec time{};
  if (!record.time) {
    ::clock_gettime(CLOCK_REALTIME, &time);
    return time;
  }
  const auto seconds = std::chrono::floor<std::chrono::seconds>(*record.time);
  time.tv_sec = seconds.time_since_epoch().count();
  time.tv_nsec = (*record.time - seconds).count();
  return time;
}

}  // namespace platform
