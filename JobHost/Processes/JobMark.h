#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "JobHost/State/StateRecord.h"
#include "Platform/Processes/ExitWatcher.h"

namespace jobhost {

// The variable in the environment of a job's process by which the kernel tells a host whose process
// it is. All that the process starts inherits it, whatever session and group it then makes.
inline constexpr char kJobMarkVariable[] = "VANTOR_JOB";

// The content of the variable.
struct JobMark {
  std::uint64_t host = 0;  // a hostMark()
  std::int64_t startedAt = 0;
  std::string label;
  platform::ProcessId leader = 0;
  bool abandonsGroup = false;  // of the job
};

// Tells a host from those with another root, and from those of another boot or pid namespace.
std::uint64_t hostMark(const std::string& root, std::string_view bootId);

// The whole variable, with ten digits at its end for the leader's number.
std::string jobMarkVariable(const JobMark& mark);
// Nothing if the variable is another one or is malformed.
std::optional<JobMark> parseJobMark(std::string_view variable);

struct MarkReading {
  std::optional<JobMark> mark;
  bool isEmpty = true;  // the kernel shows no environment
};

// The mark of a process that a host has started, also indirectly. Nothing if it has none, has ended
// or may not be read.
MarkReading readJobMark(std::string_view process);

}  // namespace jobhost
