#pragma once

#include <string>
#include <vector>

#include "Platform/Processes/Task.h"

// Where the program lies below the platform root.
inline constexpr char kKextUnloadPath[] = "/sbin/kextunload";

// Runs kextunload of the platform at `root` and waits until it has ended; serves nothing meanwhile.
// Whether it ended with status 0. One that can't be launched has not.
bool VGKextManagerExecuteKextCommand(platform::Tasks& tasks, const std::string& root,
                                     const std::vector<std::string>& arguments);
