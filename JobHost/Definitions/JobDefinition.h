#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include <sys/resource.h>
#include <sys/types.h>

#include "Platform/Jobs/Jobs.h"
#include "Platform/Processes/RestartPolicy.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "Platform/Values/VerifiedFile.h"

namespace jobhost {

using platform::KeepAlive;

// One limit of a resource. Empty if the dictionary keeps the host's limit.
struct ResourceLimit {
  int resource = 0;  // RLIMIT_…
  std::optional<rlim_t> soft;
  std::optional<rlim_t> hard;

  bool operator==(const ResourceLimit&) const = default;
};

// "ProcessType".
enum class ProcessType { kBackground, kStandard, kAdaptive, kInteractive };

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
  std::optional<int> nice;
  ProcessType processType = ProcessType::kStandard;
  bool lowPriorityIo = false;
  bool lowPriorityBackgroundIo = false;  // only while it is a background job
  std::vector<ResourceLimit> limits;
  KeepAlive keepAlive;
  bool runAtLoad = false;
  bool abandonsProcessGroup = false;  // remaining processes are not killed
  platform::Duration throttleInterval = platform::kDefaultThrottleInterval;
  platform::Duration exitTimeOut =
      std::chrono::seconds(platform::kDefaultExitTimeOut);  // 0: no SIGKILL follows
  std::vector<std::string> machServices;
  bool initGroups = true;  // the user's supplementary groups besides the job's own

  std::string file;                  // that defines it; empty if a client does
  std::vector<std::string> remarks;  // one text for each key that has no effect here

  // As it was submitted, with keys unknown to the host.
  platform::Value dictionary;
};

// The definition in `dictionary`. kInvalid, with a text that names the label, the key and the
// expected value, for a wrong type, an impossible value, and a launchd key that decides whether or
// when a job runs and that this host can't honour.
platform::Result<JobDefinition> parseJobDefinition(const platform::Value& dictionary);

}  // namespace jobhost
