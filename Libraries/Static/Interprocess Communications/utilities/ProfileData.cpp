#include "Libraries/Static/Interprocess Communications/utilities/ProfileData.h"

#include <array>
#include <cmath>
#include <cstddef>
#include <cstdint>

#include "Libraries/Static/Interprocess Communications/utilities/BootTime.h"

namespace {

constexpr std::size_t kTokenBytes = 16;
constexpr std::size_t kMixedBytes = kTokenBytes / 2;

// Random and fixed: every build of client and server must contain the same tables.
using Table = std::array<std::uint8_t, kTokenBytes>;
constexpr Table kSystemTable{0x4a, 0x0b, 0x55, 0x1c, 0x61, 0xe0, 0xc3, 0xc4,
                             0xa1, 0x4a, 0x93, 0x36, 0xe0, 0x5c, 0xce, 0x82};
constexpr Table kClientTable{0xcf, 0x42, 0xec, 0xa5, 0xff, 0x3a, 0x88, 0x76,
                             0x4b, 0xf4, 0xa5, 0x3d, 0x5c, 0x82, 0xa5, 0xc7};

// The lowest byte of the whole seconds, as in a 32-bit integer. The double is reduced first, so
// that the conversion is defined for a boot time past 2038.
std::uint8_t bootMask(const platform::SystemInformation& system) {
  const double seconds = std::trunc(systemBootTime(system));
  return static_cast<std::uint8_t>(static_cast<int>(std::fmod(seconds, 256.0)));
}

// `partner` returns the index in the table of the byte with which a byte of the first half is
// mixed.
template <typename Partner>
platform::Data token(const platform::SystemInformation& system, const Table& table,
                     Partner partner) {
  const std::uint8_t mask = bootMask(system);
  platform::Data bytes(kTokenBytes);
  for (std::size_t at = 0; at < kTokenBytes; ++at) {
    bytes[at] = table[at] ^ mask;
    if (at < kMixedBytes) bytes[at] ^= table[partner(at)];
  }
  return bytes;
}

}  // namespace

// The partner's index falls for one token and rises for the other. Neither may change, since
// each program of a product has its own copy of this code.
platform::Data systemProfileData(const platform::SystemInformation& system) {
  return token(system, kSystemTable, [](std::size_t at) { return kTokenBytes - 1 - at; });
}

platform::Data clientProfileData(const platform::SystemInformation& system) {
  return token(system, kClientTable, [](std::size_t at) { return at + 7; });
}
