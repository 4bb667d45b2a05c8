#include "Shared/Categories/NSXMLNodeExtensions.h"

#include <string>

#include "Platform/Texts/Description.h"

namespace NSXMLNodeExtensions {

Result<NSXMLNode> compactElementWithName(std::optional<std::string_view> name) {
  return NSXMLNode::elementWithName(name.value_or(""), NSXMLNode::EmptyElement::kCompact);
}

Result<NSXMLNode> attributeWithName(std::optional<std::string_view> name,
                                    const platform::Value& numberValue) {
  if (numberValue.isNil()) return NSXMLNode::attributeWithName(name.value_or(""), "");
  if (!numberValue.isNumber()) {
    return std::unexpected(platform::Error{
        platform::ErrorCode::kInvalid, 0,
        "an attribute's number is of the class " + std::string(className(numberValue))});
  }
  return NSXMLNode::attributeWithName(name.value_or(""), description(numberValue));
}

}  // namespace NSXMLNodeExtensions
