#include "Platform/SystemFacts/Gestalt.h"

#include <algorithm>
#include <limits>
#include <string>

namespace platform {
namespace {

std::int32_t atMost(std::int32_t maximum, std::uint64_t number) {
  return static_cast<std::int32_t>(std::min<std::uint64_t>(number, maximum));
}

std::int32_t packed(const OperatingSystemVersion& version) {
  const std::int32_t major = atMost(99, version.majorVersion);
  return (major / 10) << 12 | (major % 10) << 8 | atMost(9, version.minorVersion) << 4 |
         atMost(9, version.patchVersion);
}

}  // namespace

Result<std::int32_t> gestaltOfVersion(const OperatingSystemVersion& version,
                                      std::string_view selector) {
  constexpr std::int32_t kLargest = std::numeric_limits<std::int32_t>::max();
  if (selector == "sysv") return packed(version);
  if (selector == "sys1") return atMost(kLargest, version.majorVersion);
  if (selector == "sys2") return atMost(kLargest, version.minorVersion);
  if (selector == "sys3") return atMost(kLargest, version.patchVersion);
  return std::unexpected(
      Error{ErrorCode::kNotFound, 0, "no such Gestalt selector: " + std::string(selector)});
}

}  // namespace platform
