#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Error.h"

namespace platform {

// A node of an XML tree: an element, an attribute or text. A plain value that owns its children.
//
// Only valid XML can become a node: names are XML names, and texts are well-formed UTF-8 without
// the characters that XML excludes. Errors are kInvalid and show the fault.
class NSXMLNode {
 public:
  enum class Kind { kElement, kAttribute, kText };
  // How an element without content is written.
  enum class EmptyElement {
    kExpanded,  // as a start tag and an end tag
    kCompact,   // as one self-closing tag
  };

  // The depth of nested elements, including the outermost one.
  static constexpr std::size_t kMaxDepth = 128;

  static Result<NSXMLNode> elementWithName(std::string_view name, EmptyElement empty);
  static Result<NSXMLNode> attributeWithName(std::string_view name, std::string_view stringValue);
  static Result<NSXMLNode> textWithStringValue(std::string_view stringValue);

  Kind kind() const { return kind_; }
  const std::string& name() const { return name_; }  // empty for text
  // The value of an attribute, the text of a text node; empty for an element.
  const std::string& stringValue() const { return value_; }
  const std::vector<NSXMLNode>& attributes() const { return attributes_; }
  const std::vector<NSXMLNode>& children() const { return children_; }
  EmptyElement emptyElement() const { return empty_; }

  // Appends a child to this element. Fails with kInvalid if this is not an element or `child` is an
  // attribute, and with kExhausted if the elements would be nested too deep.
  Result<void> addChild(NSXMLNode child);

  // Adds an attribute to this element, or replaces the one of the same name in its place. Fails
  // with kInvalid if this is not an element or `attribute` is not an attribute.
  Result<void> addAttribute(NSXMLNode attribute);

  // The node as text in a document, without layout.
  Result<std::string> xmlString() const;

 private:
  NSXMLNode(Kind kind, std::string_view name, std::string_view value)
      : kind_(kind), name_(name), value_(value) {}

  Kind kind_;
  EmptyElement empty_ = EmptyElement::kExpanded;
  std::string name_;
  std::string value_;
  std::vector<NSXMLNode> attributes_;
  std::vector<NSXMLNode> children_;
  std::size_t depth_ = 0;  // of nested elements
};

}  // namespace platform
