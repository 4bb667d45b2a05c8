#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <string>
#include <string_view>

#include "Platform/Linux/SystemFacts/ProcessRecord.h"

namespace jobhost {

// The contents of the process's "stat" file. An empty text if there is no such process, no value if
// the file can't be read.
std::optional<std::string> statOf(std::string_view process);

// The group and session in a "stat" file, or nothing if the process has ended.
std::optional<platform::ProcessMembership> membershipIn(const std::string& stat);

// Whether the process of this "stat" file is between two programs: it has the memory of the next
// one, but the kernel does not show its environment yet.
bool isExecuting(const std::string& stat);

// The start time that a process would have that began now, in the unit of its "stat" file.
std::uint64_t startTicksNow();

// Calls `each` with the number and the "stat" file of every process, zombies too, until it returns
// false. Returns false if the processes can't be read.
bool eachProcess(const std::function<bool(std::string_view number, const std::string& stat)>& each);

}  // namespace jobhost
