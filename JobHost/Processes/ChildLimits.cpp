#include "JobHost/Processes/ChildLimits.h"

#include <algorithm>
#include <optional>
#include <string_view>

#include <fcntl.h>
#include <fmt/format.h>
#include <sys/resource.h>
#include <unistd.h>

#include "JobHost/Definitions/JobKeys.h"
#include "Platform/Linux/SystemCalls/SystemCall.h"
#include "Platform/Linux/SystemCalls/UniqueFd.h"

namespace jobhost {
namespace {

using platform::Result;

struct SoftLimit {
  int resource;
  rlim_t soft;
};

constexpr rlim_t kDefaultStackBytes = rlim_t{8} << 20;

// The kernel's, for process 1.
constexpr SoftLimit kDefaults[] = {
    {RLIMIT_CPU, RLIM_INFINITY},        {RLIMIT_FSIZE, RLIM_INFINITY}, {RLIMIT_DATA, RLIM_INFINITY},
    {RLIMIT_STACK, kDefaultStackBytes}, {RLIMIT_RSS, RLIM_INFINITY},   {RLIMIT_AS, RLIM_INFINITY},
};

// A soft limit that the job sets itself is taken as it is: if it is too high, the start fails.
// Empty if the process inherits the same limit from the host.
Result<std::optional<ChildLimit>> limitOf(int resource, const ResourceLimit* own,
                                          std::optional<rlim_t> soft, LimitsOfHost ofHost) {
  ChildLimit limit{resource, {}};
  if (::getrlimit(static_cast<__rlimit_resource>(resource), &limit.value) != 0) {
    return std::unexpected(
        platform::systemError(fmt::format("getrlimit of \"{}\"", nameOfLimit(resource))));
  }
  const rlimit before = limit.value;
  if (own && own->hard) limit.value.rlim_max = *own->hard;
  limit.value.rlim_cur = std::min(soft.value_or(limit.value.rlim_cur), limit.value.rlim_max);
  if (own && own->soft) limit.value.rlim_cur = *own->soft;
  const bool isSame = ofHost == LimitsOfHost::kAreInherited &&
                      limit.value.rlim_cur == before.rlim_cur &&
                      limit.value.rlim_max == before.rlim_max;
  return isSame ? std::nullopt : std::optional(limit);
}

// Read once: it is a setting of the machine, and the next host reads it again. Without a descriptor
// the next start reads it.
rlim_t softCoreLimitHere() {
  static std::optional<rlim_t> limit;
  if (limit) return *limit;
  const platform::UniqueFd file(::open("/proc/sys/kernel/core_pattern", O_RDONLY | O_CLOEXEC));
  char first = 0;
  if (!file || ::read(file.get(), &first, 1) != 1) return softCoreLimit("");
  limit = softCoreLimit(std::string_view(&first, 1));
  return *limit;
}

}  // namespace

rlim_t softCoreLimit(std::string_view corePattern) {
  // A program, or a program's socket, since Linux 6.16.
  return corePattern.starts_with('|') || corePattern.starts_with('@') ? RLIM_INFINITY : 0;
}

Result<std::vector<ChildLimit>> limitsOf(const JobDefinition& job,
                                         std::uint64_t originalDescriptorLimit,
                                         LimitsOfHost ofHost) {
  // Programs that use select() break with the host's raised limit.
  std::vector<SoftLimit> defaults{{RLIMIT_NOFILE, originalDescriptorLimit},
                                  {RLIMIT_CORE, softCoreLimitHere()}};
  defaults.insert(defaults.end(), std::begin(kDefaults), std::end(kDefaults));
  std::vector<ChildLimit> limits;
  for (const ResourceLimit& own : job.limits) {
    const auto known = std::ranges::find(defaults, own.resource, &SoftLimit::resource);
    const auto limit =
        limitOf(own.resource, &own,
                known == defaults.end() ? std::nullopt : std::optional(known->soft), ofHost);
    if (!limit) return std::unexpected(limit.error());
    if (*limit) limits.push_back(**limit);
    if (known != defaults.end()) defaults.erase(known);
  }
  for (const SoftLimit& each : defaults) {
    const auto limit = limitOf(each.resource, nullptr, each.soft, ofHost);
    if (!limit) return std::unexpected(limit.error());
    if (*limit) limits.push_back(**limit);
  }
  return limits;
}

}  // namespace jobhost
