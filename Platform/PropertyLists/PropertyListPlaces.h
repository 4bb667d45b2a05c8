#pragma once

#include <optional>
#include <string_view>
#include <vector>

#include "Platform/Texts/QuotedText.h"

namespace platform {

// The place of a value in the text of a property list.
struct PropertyListPlace {
  TextPosition key;    // of its <key>, if it is a value of a dictionary
  TextPosition value;  // of its start tag
  // The elements of an array, or the values of a dictionary, in their order.
  std::vector<PropertyListPlace> children;
};

// The places of all values in XML that readPropertyList() accepts. Nothing for a binary list, which
// has no lines, and for any other bytes. Any thread; never blocks.
std::optional<PropertyListPlace> placesInPropertyList(std::string_view bytes);

}  // namespace platform
