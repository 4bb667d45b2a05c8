#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Error.h"

namespace platform {

// A node of an XML tree: an element, an attribute or text. A plain value, which owns what is in it.
//
// What could not be written as XML never becomes a node: names are XML names, texts are well-formed
// UTF-8 without the characters that XML excludes. Errors are kInvalid and show what is wrong.
class NSXMLNode {
 public:
  enum class Kind { kElement, kAttribute, kText };
  // How an element without content is written.
  enum class EmptyElement {
    kExpanded,  // as a start tag and an end tag
    kCompact,   // as one self-closing tag
  };

  // Elements inside one another, the outermost one counted.
  static constexpr std::size_t kMaxDepth = 128;

  static Result<NSXMLNode> elementWithName(std::string_view name, EmptyElement empty);
  static Result<NSXMLNode> attributeWithName(std::string_view name, std::string_view stringValue);
  static Result<NSXMLNode> textWithStringValue(std::string_view stringValue);

  Kind kind() const { return kind_; }
  const std::string& name() const { return name_; }  // empty for text
  // The value of an attribute, the text of a text; empty for an element.
  const std::string& stringValue() const { return value_; }
  const std::vector<NSXMLNode>& attributes() const { return attributes_; }
  const std::vector<NSXMLNode>& children() const { return children_; }
  EmptyElement emptyElement() const { return empty_; }

  // Puts a node behind the children of this element. kInvalid where this is no element or `child`
  // an attribute, kExhausted where elements would be too deep.
  Result<void> addChild(NSXMLNode child);

  // Adds an attribute to this element; one of the same name is replaced in its place. kInvalid
  // where this is no element or `attribute` none.
  Result<void> addAttribute(NSXMLNode attribute);

  // The node as it stands in a document, without layout.
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
  std::size_t depth_ = 0;  // of elements inside one another
};

}  // namespace platform
