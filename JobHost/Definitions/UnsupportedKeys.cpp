#include "JobHost/Definitions/UnsupportedKeys.h"

#include <algorithm>
#include <array>

#include <fmt/format.h>

namespace jobhost {
namespace {

using platform::Value;

enum class Kind {
  kAny,
  kSwitch,  // a boolean, which asks for nothing when it is false
};

struct Unsupported {
  std::string_view key;
  Kind kind;
  std::string_view why;
};

constexpr std::string_view kByTheClock = "this host starts no job by the clock";
constexpr std::string_view kByFiles = "this host starts no job because files change";
constexpr std::string_view kBySockets = "this host binds no sockets but those of \"MachServices\"";
constexpr std::string_view kByMachine =
    "this host takes every job that it is given, whatever the machine or session";

constexpr std::array kUnsupported{
    Unsupported{"StartInterval", Kind::kAny, kByTheClock},
    Unsupported{"StartCalendarInterval", Kind::kAny, kByTheClock},
    Unsupported{"WatchPaths", Kind::kAny, kByFiles},
    Unsupported{"QueueDirectories", Kind::kAny, kByFiles},
    Unsupported{"StartOnMount", Kind::kSwitch,
                "this host starts no job because a file system is mounted"},
    Unsupported{"Sockets", Kind::kAny, kBySockets},
    Unsupported{"inetdCompatibility", Kind::kAny, kBySockets},
    Unsupported{"LaunchEvents", Kind::kAny, "this host starts no job because of events"},
    Unsupported{"LaunchOnlyOnce", Kind::kSwitch,
                "this host starts a job again whenever it is submitted again"},
    Unsupported{"OnDemand", Kind::kAny,
                "it is the outdated opposite of \"KeepAlive\", which says it better"},
    Unsupported{"Disabled", Kind::kSwitch,
                "this host runs the jobs that it is given; leave the job out instead"},
    Unsupported{"MultipleInstances", Kind::kSwitch, "this host runs one process of a job"},
    Unsupported{"EnableGlobbing", Kind::kSwitch, "this host passes arguments as they are"},
    Unsupported{"WaitForDebugger", Kind::kSwitch, "this host starts every job at once"},
    Unsupported{"LimitLoadToHosts", Kind::kAny, kByMachine},
    Unsupported{"LimitLoadFromHosts", Kind::kAny, kByMachine},
    Unsupported{"LimitLoadToHardware", Kind::kAny, kByMachine},
    Unsupported{"LimitLoadFromHardware", Kind::kAny, kByMachine},
    Unsupported{"LimitLoadToSessionType", Kind::kAny, kByMachine},
};

constexpr std::array kWithoutEffect{
    Unsupported{"TimeOut", Kind::kAny,
                "this host tells no job after which idle time it should end"},
};

constexpr std::array kUnsupportedConditions{
    Unsupported{"PathState", Kind::kAny, kByFiles},
    Unsupported{"OtherJobEnabled", Kind::kAny,
                "this host starts and stops no job because of another"},
    Unsupported{"NetworkState", Kind::kAny,
                "this host starts and stops no job because of the network"},
    Unsupported{"AfterInitialDemand", Kind::kAny, "this host keeps a job alive from the beginning"},
};

Fault refusal(const Unsupported& unsupported) {
  return fmt::format("it can't be honoured: {}", unsupported.why);
}

}  // namespace

Fault checkUnsupportedKey(std::string_view key, const Value& value) {
  const auto found = std::ranges::find(kUnsupported, key, &Unsupported::key);
  if (found == kUnsupported.end()) return std::nullopt;
  if (found->kind == Kind::kSwitch) {
    if (!value.boolean()) return mismatch("a boolean", value);
    if (!*value.boolean()) return std::nullopt;
  }
  return refusal(*found);
}

std::vector<std::string_view> unsupportedJobKeys() {
  std::vector<std::string_view> names;
  for (const Unsupported& unsupported : kUnsupported) names.push_back(unsupported.key);
  for (const Unsupported& unsupported : kWithoutEffect) names.push_back(unsupported.key);
  return names;
}

std::optional<std::string_view> whyWithoutEffect(std::string_view key) {
  const auto found = std::ranges::find(kWithoutEffect, key, &Unsupported::key);
  return found == kWithoutEffect.end() ? std::nullopt : std::optional(found->why);
}

Fault checkUnsupportedCondition(std::string_view condition) {
  const auto found = std::ranges::find(kUnsupportedConditions, condition, &Unsupported::key);
  if (found == kUnsupportedConditions.end()) return std::nullopt;
  return refusal(*found);
}

}  // namespace jobhost
