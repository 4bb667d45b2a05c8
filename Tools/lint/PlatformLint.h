#pragma once

#include "Tools/lint/Findings.h"
#include "Tools/lint/Node.h"

namespace lint {

// Checks the content of platform.plist, key by key as the platform reads it.
void checkPlatformConfiguration(const Node& configuration, Findings& findings);

}  // namespace lint
