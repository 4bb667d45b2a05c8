#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "JobHost/Definitions/JobKeys.h"

namespace jobhost {

// The fault of a launchd key that decides whether or when a job runs and that this host can't
// honour: a job that silently ran at other times than it says would be worse than none. A switch
// that is off asks for nothing and is no fault.
Fault checkUnsupportedKey(std::string_view key, const platform::Value& value);

// The keys of launchd that this host knows and does not honour.
std::vector<std::string_view> unsupportedJobKeys();

// Why a launchd key that only advises has no effect here. Empty if it is another key.
std::optional<std::string_view> whyWithoutEffect(std::string_view key);

// As checkUnsupportedKey() for the keys inside "KeepAlive". Empty if the key is not one of
// launchd's.
Fault checkUnsupportedCondition(std::string_view condition);

}  // namespace jobhost
