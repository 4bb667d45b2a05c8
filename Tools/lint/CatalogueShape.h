#pragma once

#include <string_view>
#include <vector>

#include "ServiceManager/Catalogue/CatalogueKeys.h"
#include "Tools/lint/Findings.h"
#include "Tools/lint/Node.h"

namespace lint {

// The keys of that dictionary of a catalogue.
std::vector<std::string_view> catalogueKeysOf(CatalogueScope scope);

// Checks the keys in a dictionary of a catalogue and the types of their values.
void checkShape(const Node& node, CatalogueScope scope, Findings& findings);

// The strings in the array of that key, with their places. Anything else is left out.
std::vector<Node> stringsOf(const Node& node, std::string_view key);

// The dictionaries in the dictionary or array of that key.
std::vector<Node> dictionariesOf(const Node& node, std::string_view key);

}  // namespace lint
