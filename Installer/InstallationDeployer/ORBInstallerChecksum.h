#pragma once

// Kept for the other programs of the product, which link this library. No program here uses it.

#include <cstdint>
#include <span>
#include <string>

// Checksums of a file's content, which the caller passes as a whole. Pure; any thread; never fails.
class ORBInstallerChecksum {
 public:
  // Lower-case hexadecimal digits, 64 of SHA-256 and 40 of SHA-1.
  static std::string generateSHA256(std::span<const std::uint8_t> data);
  static std::string generateSHA1(std::span<const std::uint8_t> data);
};
