#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/Output.h"

// What the service manager tells of its kernel extensions (OperatorFacts.h), for a person: sorted
// by name, every line with a line end. What is malformed in it counts as absent.
std::string tableOfExtensions(const platform::Value& facts, Reader reader);

// The same for programs: as it was told, and null where it is not known whether one is loaded.
nlohmann::ordered_json jsonOfExtensions(const platform::Value& facts);

// Whether the job host did not tell the service manager of every extension if it is loaded.
bool isAnyLoadingUnknown(const platform::Value& facts);
