#include "Platform/Linux/Systemd/UnitNames.h"

#include <fmt/format.h>

namespace platform {
namespace {

bool isAsciiDigit(char character) { return character >= '0' && character <= '9'; }

bool isAsciiLetter(char character) {
  return (character >= 'a' && character <= 'z') || (character >= 'A' && character <= 'Z');
}

}  // namespace

std::string escapedForUnitName(std::string_view text) {
  std::string escaped;
  for (const char character : text) {
    const bool isPlain = isAsciiLetter(character) || isAsciiDigit(character) || character == ':' ||
                         character == '_' || (character == '.' && !escaped.empty());
    if (isPlain) {
      escaped += character;
    } else if (character == '/') {
      escaped += '-';
    } else {
      escaped += fmt::format("\\x{:02x}", static_cast<unsigned char>(character));
    }
  }
  return escaped;
}

std::string unitObjectPath(std::string_view unit) {
  std::string path = "/org/freedesktop/systemd1/unit/";
  const std::size_t begin = path.size();
  for (const char character : unit) {
    const bool isPlain =
        isAsciiLetter(character) || (isAsciiDigit(character) && path.size() > begin);
    path += isPlain ? std::string(1, character)
                    : fmt::format("_{:02x}", static_cast<unsigned char>(character));
  }
  return path;
}

}  // namespace platform
