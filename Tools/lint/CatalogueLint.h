#pragma once

#include "Tools/lint/Findings.h"
#include "Tools/lint/Machine.h"
#include "Tools/lint/Node.h"

namespace lint {

// Checks a catalogue: its keys and their types, the names that it defines and uses, and the jobs of
// its services. Says what the service manager would make of it, which ignores most mistakes.
void checkCatalogue(const Node& root, const Machine& machine, Findings& findings);

}  // namespace lint
