#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Texts/IntegerValue.h"

// Releases of the operating system, as the major number of their kernel.
inline constexpr std::int64_t kORBSystemMajorNumber5Leopard = 9;
inline constexpr std::int64_t kORBSystemMajorNumber6SnowLeopard = 10;
inline constexpr std::int64_t kORBSystemMajorNumber7Lion = 11;
inline constexpr std::int64_t kORBSystemMajorNumber8MountainLion = 12;
inline constexpr std::int64_t kORBSystemMajorNumber9Mavericks = 13;
inline constexpr std::int64_t kORBSystemMajorNumber10Yosemite = 14;
inline constexpr std::int64_t kORBSystemMajorNumber11ElCapitan = 15;

// The product's extensions of the process-information object: the machine's release, and facts
// about processes and users. Nothing is cached or logged; any thread. Missing processes and users,
// and texts that aren't UTF-8, are nil.
//
// Programs here use the number and the text of the release, osVersion(), osVersionString() and
// isMacOSX7OrAbove(). The rest is kept for the other programs of the product, which link this
// library.
namespace NSProcessInfo::Extensions {

using platform::OperatingSystemVersion;
using platform::ProcessId;
using platform::SystemInformation;
using platform::UserId;

// Methods of the shared object. For null, when there is none, they return 0, nil and false.

// The major number of the kernel's release; 0 if that does not begin with a number.
std::int64_t systemMajorNumber(const SystemInformation* receiver);

// The marketing release, "10." and the kernel's major number less 4.
std::optional<std::string> systemMajorString(const SystemInformation* receiver);

// From release 10.10 on the platform's own record. Before that the answer of Gestalt, or 10.6.0 if
// that fails, deliberately.
OperatingSystemVersion osVersion(const SystemInformation* receiver);

// "major.minor.patch"; "0.0.0" without an object.
std::string osVersionString(const SystemInformation* receiver);

bool isMacOSX6OrBelow(const SystemInformation* receiver);
bool isMacOSX7Lion(const SystemInformation* receiver);
bool isMacOSX7OrAbove(const SystemInformation* receiver);
bool isMacOSX7OrBelow(const SystemInformation* receiver);
bool isMacOSX8OrAbove(const SystemInformation* receiver);
bool isMacOSX8OrBelow(const SystemInformation* receiver);
bool isMacOSX9OrAbove(const SystemInformation* receiver);
bool isMacOSX10Yosemite(const SystemInformation* receiver);
bool isMacOSX10YosemiteAndAbove(const SystemInformation* receiver);
bool isMacOSX11ElCapitanOrAbove(const SystemInformation* receiver);

// Methods of the class; their facts come from `system`.

// The kernel's major number for a marketing release such as "10.9". NSNotFound unless that is "10",
// a dot, and decimal digits.
std::int64_t systemMajorNumberForSystemMajorString(std::optional<std::string_view> string);

// parent pid, real uid, effective uid, name, error text. Without the error text the first three
// hold; with it they are -1 (all bits set) and the name is nil.
using ProcessInfoBlock =
    std::function<void(std::int64_t ppid, UserId realUserId, UserId effectiveUserId,
                       std::optional<std::string> name, std::optional<std::string> error)>;

// Calls `usingBlock` once, from inside this call.
void processInfoForPid(const SystemInformation& system, ProcessId pid,
                       const ProcessInfoBlock& usingBlock);

// The full path of the process's executable.
std::optional<std::string> processPathForPid(const SystemInformation& system, ProcessId pid);

// The user's short and full name. May block on the name service.
std::optional<std::string> posixNameForUid(const SystemInformation& system, UserId uid);
std::optional<std::string> fullNameForUid(const SystemInformation& system, UserId uid);

}  // namespace NSProcessInfo::Extensions
