#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/SystemFacts/SystemInformation.h"

namespace platform {

// System information from /proc and the name service. Release, version and Gestalt are the
// configured ones of the platform that this layer implements, because a catalogue's
// "MinimumOSVersion" refers to that platform and not to Linux.
class LinuxSystemInformation final : public SystemInformation {
 public:
  // `procFolder` is where the proc file system is mounted.
  LinuxSystemInformation(const PlatformConfiguration& configuration, std::string procFolder);

  std::string unameRelease() const override { return kernelRelease_; }
  OperatingSystemVersion operatingSystemVersion() const override { return osVersion_; }
  Result<std::int32_t> gestalt(std::string_view selector) const override;
  Result<std::optional<KernelProcess>> kernelProcess(ProcessId process) const override;
  std::optional<std::string> processPath(ProcessId process) const override;
  std::optional<UserIdentity> identityForPosixId(UserId user) const override;
  Result<std::int64_t> bootTime() const override;

 private:
  std::string kernelRelease_;
  OperatingSystemVersion osVersion_;
  std::string procFolder_;
  // The last boot time that /proc and the clocks agreed on. /proc is read again only if the clocks
  // give another one.
  mutable std::atomic<std::int64_t> confirmedBootTime_ = std::numeric_limits<std::int64_t>::min();
};

}  // namespace platform
