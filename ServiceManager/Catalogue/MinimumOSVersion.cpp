#include "ServiceManager/Catalogue/MinimumOSVersion.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "Shared/Categories/NSProcessInfo+Extensions.h"

std::optional<std::int64_t> kernelMajorNumberForMinimumOSVersion(const platform::Value& version) {
  using Row = std::pair<std::string_view, std::int64_t>;
  static constexpr std::array<Row, 4> kRows{{{"10.8", kORBSystemMajorNumber8MountainLion},
                                             {"10.9", kORBSystemMajorNumber9Mavericks},
                                             {"10.10", kORBSystemMajorNumber10Yosemite},
                                             {"10.11", kORBSystemMajorNumber11ElCapitan}}};
  if (!version.string()) return std::nullopt;
  const auto row = std::ranges::find(kRows, *version.string(), &Row::first);
  if (row == kRows.end()) return std::nullopt;
  return row->second;
}
