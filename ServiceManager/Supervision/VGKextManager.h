#pragma once

#include <string>
#include <vector>

#include "Platform/Processes/Task.h"

// The program's path below the platform root.
inline constexpr char kKextUnloadPath[] = "/sbin/kextunload";

// Runs kextunload of the platform at `root` and waits for its end; the thread serves nothing
// meanwhile. True if it could be launched and ended with status 0.
bool VGKextManagerExecuteKextCommand(platform::Tasks& tasks, const std::string& root,
                                     const std::vector<std::string>& arguments);
