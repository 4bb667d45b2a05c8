#pragma once

#include <string>

#include "Platform/Value.h"
#include "Tools/servicemanagerctl/Output.h"

// What the service manager tells of its kernel extensions (OperatorFacts.h), for a person: sorted
// by name, every line with a line end. What is malformed in it counts as absent.
std::string tableOfExtensions(const platform::Value& facts, Reader reader);
