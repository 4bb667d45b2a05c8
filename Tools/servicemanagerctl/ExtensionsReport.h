#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/Output.h"

// The service manager's kernel extensions (OperatorFacts.h), for people: sorted by name, every line
// with a line end. A malformed fact counts as absent.
std::string tableOfExtensions(const platform::Value& facts, Reader reader);

// The same for programs, unchanged, with null if it is unknown whether an extension is loaded.
nlohmann::ordered_json jsonOfExtensions(const platform::Value& facts);

// Whether the job host left it open for some extension if that is loaded.
bool isAnyLoadingUnknown(const platform::Value& facts);
