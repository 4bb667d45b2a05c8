#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "JobHost/Definitions/JobDefinition.h"
#include "Platform/Values/Value.h"

namespace jobhost {

// The fault in a key's value: what was expected and what was found. Empty if it is right.
using Fault = std::optional<std::string>;

// Puts the key's value into the definition if the host honours the key. Rejects a key that decides
// whether or when a job runs and that the host can't honour. Any other key is no fault.
Fault takeJobKey(std::string_view key, const platform::Value& value, JobDefinition& definition);

// The keys that the host honours.
std::vector<std::string_view> honouredJobKeys();

// "expected EXPECTED, found ..." with the kind of `value`, and the value itself if it is short.
std::string mismatch(std::string_view expected, const platform::Value& value);

// The name of a resource's limit (RLIMIT_...) in a job's dictionary, or its number if it has no
// name there.
std::string nameOfLimit(int resource);

}  // namespace jobhost
