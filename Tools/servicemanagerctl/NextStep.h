#pragma once

#include <string>

#include "Platform/Values/Value.h"

// The next step of an operator who wants the service to run: a sentence that often names a command.
// Empty if the service runs as it should. From the service manager's facts (OperatorFacts.h).
std::string nextStep(const platform::Value& facts);
