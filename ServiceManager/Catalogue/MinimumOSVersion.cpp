#include "ServiceManager/Catalogue/MinimumOSVersion.h"

#include <algorithm>
#include <array>
#include <string_view>
#include <utility>

#include "Shared/Categories/NSProcessInfo+Extensions.h"

namespace {

using Release = std::pair<std::string_view, std::int64_t>;
constexpr std::array<Release, 4> kReleases{{{"10.8", kORBSystemMajorNumber8MountainLion},
                                            {"10.9", kORBSystemMajorNumber9Mavericks},
                                            {"10.10", kORBSystemMajorNumber10Yosemite},
                                            {"10.11", kORBSystemMajorNumber11ElCapitan}}};

}  // namespace

std::optional<std::int64_t> kernelMajorNumberForMinimumOSVersion(const platform::Value& version) {
  if (!version.string()) return std::nullopt;
  const auto release = std::ranges::find(kReleases, *version.string(), &Release::first);
  if (release == kReleases.end()) return std::nullopt;
  return release->second;
}

std::vector<std::string_view> knownMinimumOSVersions() {
  std::vector<std::string_view> names;
  for (const auto& [name, kernel] : kReleases) names.push_back(name);
  return names;
}
