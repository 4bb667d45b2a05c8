#pragma once

#include <atomic>
#include <cstdint>
#include <limits>
#include <string>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Platform/SystemFacts/SystemInformation.h"

namespace platform {

// System information from /proc and the name service. Release, version and Gestalt are those of the
// platform that this layer implements, as configured: a catalogue's "MinimumOSVersion" means that
// one, not Linux.
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
  // What /proc has said while the clocks said the same: it need not be asked again until they say
  // something else.
  mutable std::atomic<std::int64_t> confirmedBootTime_ = std::numeric_limits<std::int64_t>::min();
};

}  // namespace platform
