#pragma once

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

namespace platform {

// The bytes of an unsigned number, the most significant first.
inline std::string bigEndian(std::uint64_t value, std::size_t size) {
  std::string bytes;
  for (std::size_t i = size; i-- > 0;) bytes += static_cast<char>(value >> (8 * i) & 0xFF);
  return bytes;
}

// A binary property list assembled by hand; every part of it can be wrong.
struct BinaryPropertyListLayout {
  std::vector<std::string> objects;  // marker and content of each
  std::uint64_t top = 0;
  std::size_t offsetSize = 2;
  std::size_t referenceSize = 1;

  std::string bytes() const {
    std::string bytes = "bplist00";
    std::string offsets;
    for (const std::string& object : objects) {
      offsets += bigEndian(bytes.size(), offsetSize);
      bytes += object;
    }
    const std::size_t table = bytes.size();
    return bytes + offsets + std::string(6, '\0') + bigEndian(offsetSize, 1) +
           bigEndian(referenceSize, 1) + bigEndian(objects.size(), 8) + bigEndian(top, 8) +
           bigEndian(table, 8);
  }
};

}  // namespace platform
