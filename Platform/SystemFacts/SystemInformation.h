#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/KernelIds.h"

namespace platform {

// The platform's operating-system version record.
struct OperatingSystemVersion {
  std::uint64_t majorVersion = 0;
  std::uint64_t minorVersion = 0;
  std::uint64_t patchVersion = 0;

  bool operator==(const OperatingSystemVersion&) const = default;
};

// The kernel's record of one process, with the names of its fields.
struct KernelProcess {
  ProcessId e_ppid = 0;  // parent
  UserId p_ruid = 0;     // real user
  UserId cr_uid = 0;     // effective user
  std::string p_comm;    // command name, as the kernel cuts it
};

// A user in the name service.
struct UserIdentity {
  std::string posixName;
  std::string fullName;  // the posix name if the user has no other
};

// The platform's process-information object with related services: facts about this machine, its
// users, and other processes. Any thread may call it. Nothing is cached. Identity queries may block
// on the name service; other calls do not block.
class SystemInformation {
 public:
  virtual ~SystemInformation() = default;

  // The kernel release as uname() returns it, for example "15.0.0".
  virtual std::string unameRelease() const = 0;

  virtual OperatingSystemVersion operatingSystemVersion() const = 0;

  // Selectors are the platform's four-character names: "sysv" (packed version), "sys1", "sys2",
  // "sys3" (major, minor, patch). Fails with kNotFound for any other selector.
  virtual Result<std::int32_t> gestalt(std::string_view selector) const = 0;

  // std::nullopt if there is no such process; an error if it could not be read.
  virtual Result<std::optional<KernelProcess>> kernelProcess(ProcessId process) const = 0;

  // The full path of the process's executable; std::nullopt if there is no such process or it has
  // none.
  virtual std::optional<std::string> processPath(ProcessId process) const = 0;

  virtual std::optional<UserIdentity> identityForPosixId(UserId user) const = 0;

  // The start of the kernel, in whole seconds since 1970-01-01T00:00:00Z.
  virtual Result<std::int64_t> bootTime() const = 0;
};

}  // namespace platform
