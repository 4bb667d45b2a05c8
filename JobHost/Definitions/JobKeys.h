#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "JobHost/Definitions/JobDefinition.h"
#include "Platform/Values/Value.h"

namespace jobhost {

// What is wrong with the value of a key: what was expected and what was found. Nothing where it is
// right.
using Fault = std::optional<std::string>;

// Takes the key over into the definition, if it is one that the host honours, or refuses it, if it
// is one that decides whether or when a job runs and that the host can't honour. Any other key is
// no fault.
Fault takeJobKey(std::string_view key, const platform::Value& value, JobDefinition& definition);

// "expected EXPECTED, found ..." with the kind of `value`, and the value itself where it is short.
std::string mismatch(std::string_view expected, const platform::Value& value);

// What the limit of this resource (RLIMIT_...) is called in a job's dictionary; its number where it
// has no name there.
std::string nameOfLimit(int resource);

}  // namespace jobhost
