#include "Platform/Linux/CodeSigning/SignatureTrailer.h"

#include <algorithm>

namespace platform {
namespace {

constexpr std::size_t kFieldBytes = kTrailerBytes - kTrailerMagic.size();
constexpr std::size_t kKindField = 2;
constexpr std::size_t kLengthField = 8;
constexpr std::uint8_t kPkcs7 = 2;

// Fewer characters of the magic text could end any file by chance.
constexpr std::size_t kMinMagicCharacters = 8;

bool endsWithTheBeginningOfMagic(std::string_view ending) {
  for (std::size_t count = kTrailerMagic.size() - 1; count >= kMinMagicCharacters; --count) {
    if (ending.ends_with(kTrailerMagic.substr(0, count))) return true;
  }
  return false;
}

}  // namespace

std::string_view describe(TrailerFault fault) {
  switch (fault) {
    case TrailerFault::kAbsent:
      return "carries no signature";
    case TrailerFault::kCut:
      return "its signature trailer is cut short";
    case TrailerFault::kTooShort:
      return "is too short for the signature trailer at its end";
    case TrailerFault::kForeignKind:
      return "its signature trailer announces another kind of signature than PKCS#7";
    case TrailerFault::kReservedBytes:
      return "its signature trailer has values where zeros must be";
    case TrailerFault::kEmpty:
      return "its signature trailer announces a signature of 0 bytes";
    case TrailerFault::kTooLarge:
      return "its signature trailer announces a signature of more than 65536 bytes";
    case TrailerFault::kBeyondFile:
      return "its signature trailer announces a signature larger than the file";
    case TrailerFault::kSignsNothing:
      return "has a signature and nothing that it could sign";
  }
  return "";
}

std::expected<SignatureTrailer, TrailerFault> readSignatureTrailer(
    std::uint64_t fileBytes, std::span<const std::uint8_t> ending) {
  const std::string_view text(reinterpret_cast<const char*>(ending.data()), ending.size());
  if (!text.ends_with(kTrailerMagic)) {
    return std::unexpected(endsWithTheBeginningOfMagic(text) ? TrailerFault::kCut
                                                             : TrailerFault::kAbsent);
  }
  if (ending.size() < kTrailerBytes || fileBytes < kTrailerBytes) {
    return std::unexpected(TrailerFault::kTooShort);
  }
  const auto fields = ending.last(kTrailerBytes).first(kFieldBytes);
  for (std::size_t at = 0; at < kLengthField; ++at) {
    if (at != kKindField && fields[at] != 0) return std::unexpected(TrailerFault::kReservedBytes);
  }
  if (fields[kKindField] != kPkcs7) return std::unexpected(TrailerFault::kForeignKind);
  std::uint32_t size = 0;
  for (std::size_t at = kLengthField; at < kFieldBytes; ++at) size = size << 8 | fields[at];
  const std::uint64_t available = fileBytes - kTrailerBytes;
  if (size == 0) return std::unexpected(TrailerFault::kEmpty);
  if (size > available) return std::unexpected(TrailerFault::kBeyondFile);
  if (size > kMaxSignatureBytes) return std::unexpected(TrailerFault::kTooLarge);
  if (size == available) return std::unexpected(TrailerFault::kSignsNothing);
  return SignatureTrailer{available - size, size};
}

std::array<std::uint8_t, kTrailerBytes> makeSignatureTrailer(std::uint32_t signatureBytes) {
  std::array<std::uint8_t, kTrailerBytes> trailer{};
  trailer[kKindField] = kPkcs7;
  for (std::size_t at = 0; at < sizeof signatureBytes; ++at) {
    trailer[kLengthField + at] =
        static_cast<std::uint8_t>(signatureBytes >> (8 * (sizeof signatureBytes - 1 - at)));
  }
  std::ranges::copy(kTrailerMagic, trailer.begin() + kFieldBytes);
  return trailer;
}

}  // namespace platform
