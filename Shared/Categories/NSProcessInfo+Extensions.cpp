#include <limits>
#include <utility>

#include "Platform/Texts/StringFormat.h"
#include "Platform/Texts/Utf8.h"
#include "Shared/Categories/NSProcessInfo+Extensions.h"
#include "Shared/Categories/NSStringExtensions.h"

namespace NSProcessInfo::Extensions {
namespace {

// The difference between the kernel's and the marketing release.
constexpr std::int64_t kKernelLead = 4;

// The packed form of 10.4.0: from there on a number above 9 may have been cut.
constexpr std::int32_t kLastExactPackedVersion = 0x103f;

constexpr OperatingSystemVersion kVersionWhenGestaltFails{10, 6, 0};

constexpr auto kNoUser = std::numeric_limits<UserId>::max();

// Bytes that are no UTF-8 make no string.
std::optional<std::string> stringWithUtf8(std::string bytes) {
  if (platform::findIllFormedUtf8(bytes)) return std::nullopt;
  return bytes;
}

OperatingSystemVersion versionOfPacked(std::int32_t packed) {
  const auto digit = [packed](int shift) {
    return static_cast<std::uint64_t>((packed >> shift) & 15);
  };
  return {digit(12) * 10 + digit(8), digit(4), digit(0)};
}

OperatingSystemVersion versionFromGestalt(const SystemInformation& system) {
  const auto packed = system.gestalt("sysv");
  if (!packed) return kVersionWhenGestaltFails;
  if (*packed <= kLastExactPackedVersion) return versionOfPacked(*packed);
  const auto major = system.gestalt("sys1");
  if (!major) return kVersionWhenGestaltFails;
  const auto minor = system.gestalt("sys2");
  if (!minor) return kVersionWhenGestaltFails;
  const auto patch = system.gestalt("sys3");
  if (!patch) return kVersionWhenGestaltFails;
  return {static_cast<std::uint64_t>(*major), static_cast<std::uint64_t>(*minor),
          static_cast<std::uint64_t>(*patch)};
}

}  // namespace

std::int64_t systemMajorNumber(const SystemInformation* receiver) {
  if (!receiver) return 0;
  const std::string release = receiver->unameRelease();
  return platform::integerValue(std::string_view(release).substr(0, release.find('.')));
}

std::optional<std::string> systemMajorString(const SystemInformation* receiver) {
  if (!receiver) return std::nullopt;
  // The format takes 32 bits, so these are the lowest 32 of the release's number.
  const auto major = static_cast<std::uint32_t>(systemMajorNumber(receiver));
  return platform::stringWithFormat(
      "10.%d", static_cast<std::int32_t>(major - static_cast<std::uint32_t>(kKernelLead)));
}

OperatingSystemVersion osVersion(const SystemInformation* receiver) {
  if (!receiver) return {};
  if (isMacOSX10YosemiteAndAbove(receiver)) return receiver->operatingSystemVersion();
  return versionFromGestalt(*receiver);
}

std::string osVersionString(const SystemInformation* receiver) {
  const OperatingSystemVersion version = osVersion(receiver);
  return platform::stringWithFormat("%lu.%lu.%lu", version.majorVersion, version.minorVersion,
                                    version.patchVersion);
}

bool isMacOSX6OrBelow(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) < kORBSystemMajorNumber7Lion;
}

bool isMacOSX7Lion(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) == kORBSystemMajorNumber7Lion;
}

bool isMacOSX7OrAbove(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) > kORBSystemMajorNumber6SnowLeopard;
}

bool isMacOSX7OrBelow(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) < kORBSystemMajorNumber8MountainLion;
}

bool isMacOSX8OrAbove(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) > kORBSystemMajorNumber7Lion;
}

bool isMacOSX8OrBelow(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) < kORBSystemMajorNumber9Mavericks;
}

bool isMacOSX9OrAbove(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) > kORBSystemMajorNumber8MountainLion;
}

bool isMacOSX10Yosemite(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) == kORBSystemMajorNumber10Yosemite;
}

bool isMacOSX10YosemiteAndAbove(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) > kORBSystemMajorNumber9Mavericks;
}

bool isMacOSX11ElCapitanOrAbove(const SystemInformation* receiver) {
  return receiver && systemMajorNumber(receiver) > kORBSystemMajorNumber10Yosemite;
}

std::int64_t systemMajorNumberForSystemMajorString(std::optional<std::string_view> string) {
  if (!string) return platform::NSNotFound;
  const std::size_t dot = string->find('.');
  if (dot == string->npos) return platform::NSNotFound;
  // A second dot is no digit, so the last check rejects more than two components.
  const std::string_view minor = string->substr(dot + 1);
  if (string->substr(0, dot) != "10" || !NSStringExtensions::isDecimalDigits(minor)) {
    return platform::NSNotFound;
  }
  std::int64_t number = 0;
  if (__builtin_add_overflow(platform::integerValue(minor), kKernelLead, &number)) {
    return platform::NSNotFound;
  }
  return number;
}

void processInfoForPid(const SystemInformation& system, ProcessId pid,
                       const ProcessInfoBlock& usingBlock) {
  auto process = system.kernelProcess(pid);
  if (!process) {
    usingBlock(-1, kNoUser, kNoUser, std::nullopt, "Failed to read data from sysctl.");
  } else if (!*process) {
    usingBlock(-1, kNoUser, kNoUser, std::nullopt, "No process info found");
  } else {
    platform::KernelProcess& record = **process;
    usingBlock(record.e_ppid, record.p_ruid, record.cr_uid,
               stringWithUtf8(std::move(record.p_comm)), std::nullopt);
  }
}

std::optional<std::string> processPathForPid(const SystemInformation& system, ProcessId pid) {
  return system.processPath(pid).and_then(stringWithUtf8);
}

std::optional<std::string> posixNameForUid(const SystemInformation& system, UserId uid) {
  auto identity = system.identityForPosixId(uid);
  if (!identity) return std::nullopt;
  return stringWithUtf8(std::move(identity->posixName));
}

std::optional<std::string> fullNameForUid(const SystemInformation& system, UserId uid) {
  auto identity = system.identityForPosixId(uid);
  if (!identity) return std::nullopt;
  return stringWithUtf8(std::move(identity->fullName));
}

}  // namespace NSProcessInfo::Extensions
