#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include <nlohmann/json.hpp>

#include "Platform/Values/Time.h"
#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/Output.h"

// The events that "watch" tells, as a line for people and as one of JSON for programs. The schema
// watch.json describes the latter.

struct WatchLine {
  std::string text;
  nlohmann::ordered_json json;
};

// An event of the operator's server (OperatorFacts.h); nothing if it is malformed or of a kind that
// this tool does not know.
std::optional<WatchLine> lineOfEvent(const platform::Value& event, Reader reader);

// So many events were not told.
WatchLine lineOfMissed(std::int64_t count, platform::WallTime now);

// The connection to the service manager is lost, or restored if there is no reason.
WatchLine lineOfConnection(std::string_view whyLost, platform::WallTime now);
