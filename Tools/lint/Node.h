#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "Platform/PropertyLists/PropertyListPlaces.h"
#include "Platform/Values/Value.h"

namespace lint {

// A value of a property list with its place. The places live as long as it.
struct Node {
  platform::Value value;
  const platform::PropertyListPlace* place = nullptr;  // null in a binary list
  std::string path;                                    // "Services/com.example.agent/JobSpec"
  std::string name;                                    // its key, or its number in an array
  bool isOfDictionary = false;
};

// The values of a dictionary or of an array; none of any other value.
std::vector<Node> childrenOf(const Node& node);

// The value of a key; if there is none, nil at the place of the dictionary.
Node childOf(const Node& node, std::string_view key);

}  // namespace lint
