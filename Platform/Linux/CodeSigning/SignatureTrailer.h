#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <expected>
#include <span>
#include <string>
#include <string_view>

namespace platform {

// A signature at the end of a program, laid out as that of a Linux kernel module, so that the
// kernel's own `sign-file` makes one:
//
//   payload | CMS signature (DER) | 12 bytes | "~Module signature appended~\n"
//
// The 12 bytes are: algorithm, digest, kind of signature (2: PKCS#7), signer's length, key's
// length, three bytes of padding, length of the CMS signature (big-endian). All but kind and length
// are 0.

inline constexpr std::string_view kTrailerMagic = "~Module signature appended~\n";
inline constexpr std::size_t kTrailerBytes = 12 + kTrailerMagic.size();

// The largest CMS signature that is taken; a chain of eight large certificates needs a third of it.
inline constexpr std::uint32_t kMaxSignatureBytes = 64 * 1024;

// Where the parts of a signed file lie; offsets and sizes in bytes.
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

// What the fault is, for a text that begins with the file's name: "its signature trailer ...".
std::string_view describe(TrailerFault fault);

// Reads the trailer of a file of `fileBytes`, of which `ending` is the end: the last kTrailerBytes,
// or the whole file where it is shorter. Bytes are only compared and added up.
std::expected<SignatureTrailer, TrailerFault> readSignatureTrailer(
    std::uint64_t fileBytes, std::span<const std::uint8_t> ending);

// The trailer of a signature of that many bytes.
std::array<std::uint8_t, kTrailerBytes> makeSignatureTrailer(std::uint32_t signatureBytes);

}  // namespace platform
