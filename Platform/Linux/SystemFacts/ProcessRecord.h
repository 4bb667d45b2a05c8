#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Error.h"

namespace platform {

// The content of a process's "stat" file. The command name is raw: every process chooses its own,
// so it may contain parentheses, spaces, line ends and ill-formed UTF-8.
struct ProcessStat {
  ProcessId process = 0;
  ProcessId parent = 0;
  std::string command;
};

// The group and session of a process, from the same file.
struct ProcessMembership {
  char state = 0;  // of the first thread, which may end before the others
  ProcessId group = 0;
  ProcessId session = 0;
  std::int64_t threads = 0;
};

// The content of a process's "status" file.
struct ProcessStatus {
  ProcessId threadGroup = 0;  // differs from the number asked for if that is a thread's
  UserId realUser = 0;
  UserId effectiveUser = 0;
};

// These take the beginning of the file, which must contain the fields that they read. They fail
// with kInvalid if it is malformed.
Result<ProcessStat> parseProcessStat(std::string_view text);
Result<ProcessMembership> parseProcessMembership(std::string_view text);
Result<ProcessStatus> parseProcessStatus(std::string_view text);

// The start of the system in seconds since 1970, from the text of the system's "stat" file.
Result<std::int64_t> parseBootTime(std::string_view text);

}  // namespace platform
