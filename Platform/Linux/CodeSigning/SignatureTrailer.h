#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <span>
#include <string>
#include <string_view>

namespace platform {

// A signature at the end of a program, in the layout of a signed Linux kernel module, so that the
// kernel's `sign-file` can make one:
//
//   payload | CMS signature (DER) | 12 bytes | "~Module signature appended~\n"
//
// The 12 bytes are: algorithm, digest, kind of signature (2: PKCS#7), length of the signer, length
// of the key, three bytes of padding, length of the CMS signature (big-endian). All but kind and
// last length are 0.

inline constexpr std::string_view kTrailerMagic = "~Module signature appended~\n";
inline constexpr std::size_t kTrailerBytes = 12 + kTrailerMagic.size();

// The largest accepted CMS signature. A chain of eight large certificates needs a third of it.
inline constexpr std::uint32_t kMaxSignatureBytes = 64 * 1024;

// The parts of a signed file; offsets and sizes in bytes.
struct SignatureTrailer {
  std::uint64_t payloadBytes = 0;
  std::uint32_t signatureBytes = 0;

  bool operator==(const SignatureTrailer&) const = default;
};

enum class TrailerFault {
  kAbsent,         // the file does not end with a trailer
  kCut,            // it ends with the beginning of one
  kTooShort,       // it ends with the text, but is too short for a trailer
  kForeignKind,    // the signature is not PKCS#7
  kReservedBytes,  // bytes that must be 0 are not
  kEmpty,          // the signature's length is 0
  kTooLarge,       // it is over kMaxSignatureBytes
  kBeyondFile,     // it is more than the file has
  kSignsNothing,   // the file has nothing besides the signature
};

// A description of the fault that continues a text with the file's name: "its signature trailer
// ...".
std::string_view describe(TrailerFault fault);

// Reads the trailer of a file of `fileBytes` bytes. `ending` holds its last kTrailerBytes bytes, or
// all of a shorter file. Only compares and adds bytes.
std::expected<SignatureTrailer, TrailerFault> readSignatureTrailer(
    std::uint64_t fileBytes, std::span<const std::uint8_t> ending);

// The trailer of a signature of `signatureBytes` bytes.
std::array<std::uint8_t, kTrailerBytes> makeSignatureTrailer(std::uint32_t signatureBytes);

}  // namespace platform
