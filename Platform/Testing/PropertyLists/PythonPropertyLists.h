#pragma once

#include <optional>
#include <string>
#include <vector>

#include "Platform/Values/Value.h"

namespace platform {

// What Python's plistlib, an implementation that has nothing in common with ours, makes of a list.
struct PythonPropertyList {
  std::string canonical;  // of what it read, as canonicalText(); "!..." where it refused
  Data xml;               // what it writes for that, both empty where it refused to
  Data binary;
};

// Gives all lists to one Python process and returns its answers in the same order; nothing if
// Python can't be run. Blocks until it has ended.
std::optional<std::vector<PythonPropertyList>> readWithPython(const std::vector<Data>& lists);

}  // namespace platform
