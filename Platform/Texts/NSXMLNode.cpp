#include "Platform/Texts/NSXMLNode.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <utility>

#include <fmt/core.h>
#include <libxml/tree.h>
#include <libxml/xmlwriter.h>

#include "Platform/Texts/QuotedText.h"
#include "Platform/Texts/Utf8.h"

namespace platform {
namespace {

const xmlChar* xmlText(const std::string& text) {
  return reinterpret_cast<const xmlChar*>(text.c_str());
}

std::optional<Error> checkName(std::string_view name) {
  const std::string terminated(name);
  const bool isName = name.find('\0') == name.npos && !findIllFormedUtf8(name) &&
                      xmlValidateName(xmlText(terminated), 0) == 0;
  if (isName) return std::nullopt;
  return Error{ErrorCode::kInvalid, 0, fmt::format("{} is no name of XML", quotedInMessage(name))};
}

std::optional<Error> checkText(std::string_view text) {
  if (const auto offset = findIllFormedUtf8(text)) {
    return Error{ErrorCode::kInvalid, 0,
                 fmt::format("{} is not UTF-8 at its byte {}", quotedInMessage(text), *offset)};
  }
  if (const auto offset = findCharacterXmlExcludes(text)) {
    return Error{ErrorCode::kInvalid, 0,
                 fmt::format("{} has a character at its byte {} that XML excludes",
                             quotedInMessage(text), *offset)};
  }
  return std::nullopt;
}

struct BufferDeleter {
  void operator()(xmlBuffer* buffer) const { xmlBufferFree(buffer); }
};
struct WriterDeleter {
  void operator()(xmlTextWriter* writer) const { xmlFreeTextWriter(writer); }
};

// Returns whether the writer succeeded. The depth of the tree limits the recursion.
bool write(xmlTextWriter* writer, const NSXMLNode& node) {
  switch (node.kind()) {
    case NSXMLNode::Kind::kText:
      return xmlTextWriterWriteString(writer, xmlText(node.stringValue())) >= 0;
    case NSXMLNode::Kind::kAttribute:
      return xmlTextWriterWriteAttribute(writer, xmlText(node.name()),
                                         xmlText(node.stringValue())) >= 0;
    case NSXMLNode::Kind::kElement:
      break;
  }
  const auto writeOne = [writer](const NSXMLNode& inner) { return write(writer, inner); };
  const bool hasContent = xmlTextWriterStartElement(writer, xmlText(node.name())) >= 0 &&
                          std::ranges::all_of(node.attributes(), writeOne) &&
                          std::ranges::all_of(node.children(), writeOne);
  if (!hasContent) return false;
  return node.emptyElement() == NSXMLNode::EmptyElement::kCompact
             ? xmlTextWriterEndElement(writer) >= 0
             : xmlTextWriterFullEndElement(writer) >= 0;
}

}  // namespace

Result<NSXMLNode> NSXMLNode::elementWithName(std::string_view name, EmptyElement empty) {
  if (auto wrong = checkName(name)) return std::unexpected(*std::move(wrong));
  NSXMLNode node(Kind::kElement, name, "");
  node.empty_ = empty;
  node.depth_ = 1;
  return node;
}

Result<NSXMLNode> NSXMLNode::attributeWithName(std::string_view name,
                                               std::string_view stringValue) {
  if (auto wrong = checkName(name)) return std::unexpected(*std::move(wrong));
  if (auto wrong = checkText(stringValue)) return std::unexpected(*std::move(wrong));
  return NSXMLNode(Kind::kAttribute, name, stringValue);
}

Result<NSXMLNode> NSXMLNode::textWithStringValue(std::string_view stringValue) {
  if (auto wrong = checkText(stringValue)) return std::unexpected(*std::move(wrong));
  return NSXMLNode(Kind::kText, "", stringValue);
}

Result<void> NSXMLNode::addChild(NSXMLNode child) {
  if (kind_ != Kind::kElement) return invalid("only an element has children");
  if (child.kind_ == Kind::kAttribute) {
    return invalid(fmt::format("the attribute {} can't be a child", quotedInMessage(child.name_)));
  }
  if (child.depth_ + 1 > kMaxDepth) {
    return std::unexpected(Error{ErrorCode::kExhausted, 0,
                                 fmt::format("more than {} elements inside one another in {}",
                                             kMaxDepth, quotedInMessage(name_))});
  }
  depth_ = std::max(depth_, child.depth_ + 1);
  children_.push_back(std::move(child));
  return {};
}

Result<void> NSXMLNode::addAttribute(NSXMLNode attribute) {
  if (kind_ != Kind::kElement) return invalid("only an element has attributes");
  if (attribute.kind_ != Kind::kAttribute) return invalid("only an attribute can be added as one");
  const auto known = std::ranges::find(attributes_, attribute.name_, &NSXMLNode::name_);
  if (known != attributes_.end()) {
    *known = std::move(attribute);
  } else {
    attributes_.push_back(std::move(attribute));
  }
  return {};
}

Result<std::string> NSXMLNode::xmlString() const {
  const std::unique_ptr<xmlBuffer, BufferDeleter> buffer(xmlBufferCreate());
  // The writer accepts neither a text alone nor an attribute alone.
  if (kind_ == Kind::kAttribute) return invalid("an attribute is no part of a document by itself");
  std::unique_ptr<xmlTextWriter, WriterDeleter> writer(
      buffer ? xmlNewTextWriterMemory(buffer.get(), 0) : nullptr);
  const bool written =
      writer && write(writer.get(), *this) && xmlTextWriterFlush(writer.get()) >= 0;
  writer.reset();
  if (!written) return std::unexpected(Error{ErrorCode::kExhausted, 0, "no memory to write XML"});
  return std::string(reinterpret_cast<const char*>(xmlBufferContent(buffer.get())),
                     static_cast<std::size_t>(xmlBufferLength(buffer.get())));
}

}  // namespace platform
