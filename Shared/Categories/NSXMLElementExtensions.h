#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <vector>

#include "Platform/Texts/NSXMLNode.h"
#include "Platform/Values/Value.h"

// Elements of XML. Pure; any thread. A failure leaves the receiver as it was.
namespace NSXMLElementExtensions {

using platform::NSXMLNode;
using platform::Result;

// Adds the nodes after the element's children, in their order.
Result<void> addChildren(NSXMLNode& receiver, std::vector<NSXMLNode> children);

// Makes an attribute of each entry of the dictionary (null for none), in its order: the key is the
// name, the text or the number's text the value. Values of any other class are skipped. kInvalid if
// a key is no name or a text can't be in XML.
Result<void> addAttributesfromDictionary(NSXMLNode& receiver,
                                         const platform::Dictionary* dictionary);

}  // namespace NSXMLElementExtensions
