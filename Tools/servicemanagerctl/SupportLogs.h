#pragma once

#include <vector>

#include "Platform/SystemFacts/PlatformConfiguration.h"
#include "Tools/servicemanagerctl/SupportBundle.h"

// The ends of the product's log files, or of its lines in the journal, without secrets. Bounded in
// size, and in time also where a disk or the journal hangs.
std::vector<SupportPart> supportLogs(const platform::PlatformConfiguration& configuration);
