#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <optional>
#include <string_view>

#include "Platform/Texts/NSXMLNode.h"
#include "Platform/Values/Value.h"

// Nodes of XML. Pure; any thread. kInvalid, with a text that shows the fault, if a name or value
// can't be in XML; a nil name counts as empty.
namespace NSXMLNodeExtensions {

using platform::NSXMLNode;
using platform::Result;

// An element that is written as one self-closing tag while it has no content.
Result<NSXMLNode> compactElementWithName(std::optional<std::string_view> name);

// An attribute whose value is the number's text: an integer's digits, a boolean's 1 or 0, a real's
// shortest text that reads back. Empty for nil; kInvalid for any other value.
Result<NSXMLNode> attributeWithName(std::optional<std::string_view> name,
                                    const platform::Value& numberValue);

}  // namespace NSXMLNodeExtensions
