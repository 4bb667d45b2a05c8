#include "Platform/Linux/Logging/ServiceOutputFile.h"

#include <cstddef>
#include <cstdint>

#include <fmt/format.h>

#include "Platform/Linux/Logging/LogSinkChoice.h"

namespace platform {
namespace {

constexpr std::string_view kPlainInOutputNames =
    "abcdefghijklmnopqrstuvwxyzABCDEFGHIJKLMNOPQRSTUVWXYZ0123456789.-_";
// With the suffixes of its files, a name stays within the 255 bytes of a file name.
constexpr std::size_t kMaximumOutputNameBytes = 200;

// FNV-1a: the same number in each version of the programs.
std::uint64_t numberOf(std::string_view text) {
  std::uint64_t number = 0xcbf29ce484222325;
  for (const char character : text) {
    number = (number ^ static_cast<unsigned char>(character)) * 0x100000001b3;
  }
  return number;
}

}  // namespace

std::string outputNameOf(std::string_view label) {
  std::string name;
  for (const char character : label) {
    // A name must be neither "." nor "..".
    const bool isPlain =
        kPlainInOutputNames.find(character) != label.npos && !(character == '.' && name.empty());
    if (isPlain) {
      name += character;
    } else {
      name += fmt::format("%{:02x}", static_cast<unsigned char>(character));
    }
  }
  if (name.size() <= kMaximumOutputNameBytes) return name;
  name.resize(kMaximumOutputNameBytes);
  return fmt::format("{}~{:016x}", name, numberOf(label));
}

std::string serviceOutputFolder(const std::string& root) {
  const std::string log = logFile(root);
  return log.substr(0, log.rfind('/')) + "/services";
}

std::string serviceOutputFile(const std::string& root, std::string_view label) {
  return fmt::format("{}/{}.log", serviceOutputFolder(root), outputNameOf(label));
}

}  // namespace platform
