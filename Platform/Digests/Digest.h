#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <span>
#include <string>

namespace platform {

inline constexpr std::size_t CC_MD5_DIGEST_LENGTH = 16;
inline constexpr std::size_t CC_SHA1_DIGEST_LENGTH = 20;
inline constexpr std::size_t CC_SHA256_DIGEST_LENGTH = 32;

// The platform's digests of `bytes` of any size in one call. They can't fail and don't block; any
// thread may call them. MD5 and SHA-1 only identify contents here; nothing relies on their
// security.
std::array<std::uint8_t, CC_MD5_DIGEST_LENGTH> CC_MD5(std::span<const std::uint8_t> bytes);
std::array<std::uint8_t, CC_SHA1_DIGEST_LENGTH> CC_SHA1(std::span<const std::uint8_t> bytes);
std::array<std::uint8_t, CC_SHA256_DIGEST_LENGTH> CC_SHA256(std::span<const std::uint8_t> bytes);

// Two lower-case hexadecimal digits per byte. The same on every system, so it has a source file of
// its own.
std::string hexadecimalText(std::span<const std::uint8_t> bytes);

}  // namespace platform
