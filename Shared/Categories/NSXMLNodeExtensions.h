#pragma once

#include <optional>
#include <string_view>

#include "Platform/Texts/NSXMLNode.h"
#include "Platform/Values/Value.h"

// Nodes of XML. Pure; any thread. kInvalid, showing what is wrong, where it can't be in XML; a name
// that is nil counts as an empty one.
namespace NSXMLNodeExtensions {

using platform::NSXMLNode;
using platform::Result;

// An element that is written as one self-closing tag as long as it has no content.
Result<NSXMLNode> compactElementWithName(std::optional<std::string_view> name);

// An attribute whose value is the number's text: an integer's digits, a boolean's 1 or 0, a real's
// shortest text that reads back; empty for nil. Anything but a number is kInvalid.
Result<NSXMLNode> attributeWithName(std::optional<std::string_view> name,
                                    const platform::Value& numberValue);

}  // namespace NSXMLNodeExtensions
