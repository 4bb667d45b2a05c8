#pragma once

#include <cstdint>
#include <string>
#include <string_view>

#include "Platform/SystemFacts/SystemInformation.h"
#include "Platform/Values/Error.h"

namespace platform {

// What a process's "stat" file says. The command name is raw: it may hold parentheses, spaces, line
// ends and ill-formed UTF-8, since every process chooses its own.
struct ProcessStat {
  ProcessId process = 0;
  ProcessId parent = 0;
  std::string command;
};

// What a process's "status" file says.
struct ProcessStatus {
  ProcessId threadGroup = 0;  // differs from the number asked for where that names a mere thread
  UserId realUser = 0;
  UserId effectiveUser = 0;
};

// Both take the beginning of the file, as long as it holds what they look for; kInvalid for what is
// malformed.
Result<ProcessStat> parseProcessStat(std::string_view text);
Result<ProcessStatus> parseProcessStatus(std::string_view text);

// When the kernel started, from the text of the system's "stat" file.
Result<std::int64_t> parseBootTime(std::string_view text);

}  // namespace platform
