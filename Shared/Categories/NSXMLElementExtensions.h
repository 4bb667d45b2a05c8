#pragma once

#include <vector>

#include "Platform/Texts/NSXMLNode.h"
#include "Platform/Values/Value.h"

// Elements of XML. Pure; any thread. A failure leaves the receiver as it was.
namespace NSXMLElementExtensions {

using platform::NSXMLNode;
using platform::Result;

// Puts the nodes behind the children that the element has, in their order.
Result<void> addChildren(NSXMLNode& receiver, std::vector<NSXMLNode> children);

// Makes an attribute of each entry of the dictionary (null for none), in its order: named by the
// key, with the text itself or the number's text for its value. Values of any other class are
// skipped. kInvalid where a key is no name or a text can't be in XML.
Result<void> addAttributesfromDictionary(NSXMLNode& receiver,
                                         const platform::Dictionary* dictionary);

}  // namespace NSXMLElementExtensions
