#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Values/Value.h"

namespace platform {

// The result of Python's plistlib for a list. That implementation is independent of ours.
struct PythonPropertyList {
  std::string canonical;  // canonicalText() of the value it read; "!..." if it refused
  Data xml;               // its output for the value, both empty if it refused
  Data binary;
};

// Passes all lists to one Python process and returns its results in the same order; std::nullopt if
// Python can't be run. Blocks until it has ended.
std::optional<std::vector<PythonPropertyList>> readWithPython(const std::vector<Data>& lists);

}  // namespace platform
