#pragma once

#include <optional>
#include <string>

#include <nlohmann/json.hpp>

#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/Output.h"

// One service in full, from the service manager's facts (OperatorFacts.h), for people and for
// programs: what it is, how its last processes ended, and when the next one starts.

// Every line has a line end. `started` is when its process began, if it has one.
std::string detailsAsText(const platform::Value& facts, std::optional<platform::WallTime> started,
                          platform::WallTime now, Reader reader);
nlohmann::ordered_json detailsAsJson(const platform::Value& facts,
                                     std::optional<platform::WallTime> started,
                                     platform::WallTime now);
