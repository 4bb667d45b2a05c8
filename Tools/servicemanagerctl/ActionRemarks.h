#pragma once

#include <string>
#include <vector>

#include "Platform/Values/Value.h"

// Remarks on a service after a command to start or stop it, from the service manager's facts
// (OperatorFacts.h). Each is empty if there is nothing to say.

// Why it does not run, or that it will be ended although it runs.
std::string remarkAfterStart(const platform::Value& facts);

// Why it runs nevertheless, or that it is started again without being asked for.
std::string remarkAfterStop(const platform::Value& facts);

// For how long a stop lasts.
std::string lastingOfStop(const std::vector<std::string>& labels);
