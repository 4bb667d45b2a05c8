#pragma once

#include <map>
#include <set>
#include <string>

#include "Platform/SystemFacts/SystemInformation.h"

namespace platform {

// A machine that a test describes. Initially it has release 15.0.0, version 10.11.0, no processes,
// and only the user 0 ("root", "System Administrator"); it was started at kBootTime. Gestalt
// follows from the version.
class FakeSystemInformation final : public SystemInformation {
 public:
  static constexpr std::int64_t kBootTime = 1'767'323'045;

  void setRelease(std::string release, OperatingSystemVersion version);

  // From now on this selector returns `value`.
  void setGestalt(std::string selector, std::int32_t value);
  void failGestalt(std::string selector);

  // Without a path the process has no executable.
  void addProcess(ProcessId process, KernelProcess record, std::optional<std::string> path);
  void removeProcess(ProcessId process);
  // From now on the process's record can't be read, and its path is unknown.
  void makeUnreadable(ProcessId process);

  void addUser(UserId user, UserIdentity identity);

  void setBootTime(Result<std::int64_t> bootTime);

  std::string unameRelease() const override { return release_; }
  OperatingSystemVersion operatingSystemVersion() const override { return version_; }
  Result<std::int32_t> gestalt(std::string_view selector) const override;
  Result<std::optional<KernelProcess>> kernelProcess(ProcessId process) const override;
  std::optional<std::string> processPath(ProcessId process) const override;
  std::optional<UserIdentity> identityForPosixId(UserId user) const override;
  Result<std::int64_t> bootTime() const override { return bootTime_; }

 private:
  struct Process {
    KernelProcess record;
    std::optional<std::string> path;
    bool readable = true;
  };

  std::string release_ = "15.0.0";
  OperatingSystemVersion version_{10, 11, 0};
  std::map<std::string, std::int32_t, std::less<>> gestalt_;
  std::set<std::string, std::less<>> failingSelectors_;
  std::map<ProcessId, Process> processes_;
  std::map<UserId, UserIdentity> users_{{0, {"root", "System Administrator"}}};
  Result<std::int64_t> bootTime_ = kBootTime;
};

}  // namespace platform
