#pragma once

#include <span>
#include <string>
#include <string_view>

#include "Tools/lint/Findings.h"
#include "Tools/lint/Node.h"

namespace lint {

// " (did you mean "NAME"?)", or nothing if no known name is near.
std::string suggestion(std::string_view name, std::span<const std::string_view> known);

// Finds that the key of `node` is not among the known ones. It may be misspelt.
void checkIsKnown(const Node& node, std::span<const std::string_view> known, Findings& findings);

// The type of a value in words: "an array".
std::string_view typeInWords(const platform::Value& value);

}  // namespace lint
