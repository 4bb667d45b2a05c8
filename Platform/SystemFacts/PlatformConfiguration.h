#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// What `etc/vantor/platform.plist` below the platform root says of the platform; every key is
// optional. It never configures the daemon, which has no options.
struct PlatformConfiguration {
  enum class JobBackend { kEmbedded, kSystemd };
  enum class LogSink { kJournal, kSyslog, kFile };

  // The folder that every path of the platform layer lies below: absolute, without a slash at its
  // end unless it is "/".
  std::string root = "/";

  // "KernelRelease": one to three numbers with dots between them. The first is at least 4.
  std::string kernelRelease = "15.0.0";

  // "OSVersion": two or three numbers with dots between them, a missing third is 0. By default what
  // goes with the kernel release: 10, its first number less 4, its second number.
  OperatingSystemVersion osVersion{10, 11, 0};

  // "UsersRoot": where the users' home folders lie; absolute, and not below `root`.
  std::string usersRoot = "/home";

  // "Group": the name of the group whose members may register connections.
  std::optional<std::string> group;

  // "Languages": the preferred ones first; when empty the system's locale decides.
  std::vector<std::string> languages;

  // "NotificationBus": the D-Bus address of the bus that carries notifications, or "system"; when
  // absent the platform chooses.
  std::optional<std::string> notificationBus;

  // "JobBackend": "embedded" or "systemd"; when absent the platform chooses.
  std::optional<JobBackend> jobBackend;

  // "LogSink": "journal", "syslog" or "file"; when absent the platform chooses.
  std::optional<LogSink> logSink;

  // "LogLevel": the least grave level that is written, 0 to 7.
  int logLevel = 7;
};

// The platform without a configuration file.
PlatformConfiguration defaultPlatformConfiguration(std::string_view root);

// The platform as the property list `contents` describes it. A wrong type, an impossible value and
// an unknown key are each kInvalid, with a text that begins with `file` (the name of the file) and
// says which key it is and what was expected.
Result<PlatformConfiguration> parsePlatformConfiguration(const Value& contents,
                                                         std::string_view file,
                                                         std::string_view root);

}  // namespace platform
