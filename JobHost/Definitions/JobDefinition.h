#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <sys/types.h>

#include "Platform/Jobs/Jobs.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "Platform/Values/VerifiedFile.h"

namespace jobhost {

// The conditions under which a job is restarted after its process has ended.
struct KeepAlive {
  // "KeepAlive" as a boolean: after every end.
  bool always = false;
  // "SuccessfulExit": only after ends with status 0 (true), or only after others (false).
  std::optional<bool> successfulExit;
  // "Crashed": only after ends by a crash's signal (true), or only after others (false).
  std::optional<bool> crashed;

  bool operator==(const KeepAlive&) const = default;
};

// One limit of a resource. Empty if the dictionary keeps the host's limit.
struct ResourceLimit {
  int resource = 0;  // RLIMIT_…
  std::optional<rlim_t> soft;
  std::optional<rlim_t> hard;

  bool operator==(const ResourceLimit&) const = default;
};

// A job's dictionary, checked: all that the host needs to start it and to decide about it.
struct JobDefinition {
  std::string label;
  std::string program;                 // the path to execute, absolute
  std::vector<std::string> arguments;  // argv, never empty
  std::optional<platform::VerifiedFile> verifiedProgram;
  std::optional<std::string> userName;
  std::optional<std::string> groupName;
  std::string workingDirectory = "/";
  std::optional<std::string> rootDirectory;
  std::vector<std::pair<std::string, std::string>> environment;  // in the dictionary's order
  std::string standardInPath = "/dev/null";
  std::string standardOutPath = "/dev/null";
  std::string standardErrorPath = "/dev/null";
  std::optional<mode_t> umask;
  int nice = 0;
  std::vector<ResourceLimit> limits;
  KeepAlive keepAlive;
  bool runAtLoad = false;
  platform::Duration throttleInterval = std::chrono::seconds(10);
  platform::Duration exitTimeOut =
      std::chrono::seconds(platform::kDefaultExitTimeOut);  // 0: no SIGKILL follows
  std::vector<std::string> machServices;

  // As it was submitted, with keys unknown to the host.
  platform::Value dictionary;
};

// The definition in `dictionary`. kInvalid, with a text that names the label, the key and the
// expected value, for a wrong type, an impossible value, and a launchd key that decides whether or
// when a job runs and that this host can't honour.
platform::Result<JobDefinition> parseJobDefinition(const platform::Value& dictionary);

}  // namespace jobhost
