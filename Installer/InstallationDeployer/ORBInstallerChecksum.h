#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <cstdint>
#include <span>
#include <string>

// Computes checksums. The caller passes the whole content of a file. Pure; any thread; never fails.
class ORBInstallerChecksum {
 public:
  // The checksum has lower-case hexadecimal digits: 64 for SHA-256, 40 for SHA-1.
  static std::string generateSHA256(std::span<const std::uint8_t> data);
  static std::string generateSHA1(std::span<const std::uint8_t> data);
};
