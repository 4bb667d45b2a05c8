#pragma once

#include <string>

#include "Tools/lint/Machine.h"

// This machine, as lint asks about it: programs are checked as the service manager of the platform
// at `root` checks them. If `root` is empty, that is the platform that this program lies in.
lint::Machine makeLintMachine(const std::string& root);
