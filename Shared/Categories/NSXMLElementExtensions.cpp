#include "Shared/Categories/NSXMLElementExtensions.h"

#include <string>
#include <utility>

#include "Shared/Categories/NSXMLNodeExtensions.h"

namespace NSXMLElementExtensions {

Result<void> addChildren(NSXMLNode& receiver, std::vector<NSXMLNode> children) {
  NSXMLNode changed = receiver;
  for (NSXMLNode& child : children) {
    if (auto added = changed.addChild(std::move(child)); !added) return added;
  }
  receiver = std::move(changed);
  return {};
}

Result<void> addAttributesfromDictionary(NSXMLNode& receiver,
                                         const platform::Dictionary* dictionary) {
  if (!dictionary) return {};
  NSXMLNode changed = receiver;
  for (const auto& [key, value] : *dictionary) {
    const std::string* const text = value.string();
    if (!text && !value.isNumber()) continue;
    auto attribute = text ? NSXMLNode::attributeWithName(key, *text)
                          : NSXMLNodeExtensions::attributeWithName(key, value);
    if (!attribute) return std::unexpected(std::move(attribute.error()));
    if (auto added = changed.addAttribute(*std::move(attribute)); !added) return added;
  }
  receiver = std::move(changed);
  return {};
}

}  // namespace NSXMLElementExtensions
