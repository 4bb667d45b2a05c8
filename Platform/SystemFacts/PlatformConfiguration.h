#pragma once

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// The content of `etc/vantor/platform.plist` below the platform root. Every key is optional. It
// does not configure the daemon, which has no options.
struct PlatformConfiguration {
  enum class LogSink { kJournal, kSyslog, kFile };
  enum class JobBackend { kEmbedded, kSystemd };
  enum class ServiceOutput { kLog, kJournal, kDiscard };

  // The folder above every path of the platform layer: absolute, without a slash at its end unless
  // it is "/".
  std::string root = "/";

  // "KernelRelease": one to three numbers separated by dots. The first is at least 4.
  std::string kernelRelease = "15.0.0";

  // "OSVersion": two or three numbers separated by dots; a missing third is 0. The default follows
  // from the kernel release: 10, its first number minus 4, its second number.
  OperatingSystemVersion osVersion{10, 11, 0};

  // "UsersRoot": the folder of the users' home folders; absolute, and not below `root`.
  std::string usersRoot = "/home";

  // "Group": the name of the product's group, whose members may reach its listeners. Without it
  // only root may, and the user whose job host it is.
  std::optional<std::string> group;

  // "OpenListeners": the names of the listeners that every user of the machine may reach. Those of
  // the installer and of the secret can't be among them.
  std::vector<std::string> openListeners;

  // "NameOwners": the users, by the names of their connections, whose programs register a name
  // instead of root's.
  std::map<std::string, std::string> nameOwners;

  // The mistakes in the file that are ignored.
  std::vector<std::string> warnings;

  // "Languages": the preferred ones first. If it is empty, the system's locale decides.
  std::vector<std::string> languages;

  // "NotificationBus": the D-Bus address of the bus that carries notifications, or "system". If it
  // is absent, the platform chooses.
  std::optional<std::string> notificationBus;

  // "LogSink": "journal", "syslog" or "file". If it is absent, the platform chooses.
  std::optional<LogSink> logSink;

  // "LogLevel": the least severe level that is logged, 0 to 7. The default leaves out debug lines.
  int logLevel = 6;

  // "JobBackend": "embedded" or "systemd", which starts the processes of jobs: the job host itself,
  // or systemd in transient units.
  JobBackend jobBackend = JobBackend::kEmbedded;

  // "ServiceOutput": "log", "journal" or "discard". The output of jobs whose standard files are
  // /dev/null goes to a file for each label, to the journal, or nowhere.
  ServiceOutput serviceOutput = ServiceOutput::kLog;
};

// The path of a file below a platform root: "/etc/file" or "ROOT/etc/file" for "etc/file".
std::string pathBelowRoot(std::string_view root, std::string_view path);

// The configuration without a file.
PlatformConfiguration defaultPlatformConfiguration(std::string_view root);

// The keys of the file.
std::vector<std::string_view> platformConfigurationKeys();

// The configuration in the property list `contents`. A wrong type, an impossible value and an
// unknown key fail with kInvalid. The text begins with `file` (the file's name) and names the key
// and the expected value.
Result<PlatformConfiguration> parsePlatformConfiguration(const Value& contents,
                                                         std::string_view file,
                                                         std::string_view root);

}  // namespace platform
