#include "Platform/PropertyLists/PropertyListXmlReader.h"

#include <algorithm>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include <fmt/core.h>
#include <libxml/xmlreader.h>

#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Platform/PropertyLists/PropertyListXmlBuilder.h"
#include "Platform/PropertyLists/PropertyListXmlEncoding.h"
#include "Platform/PropertyLists/PropertyListXmlScanner.h"
#include "Platform/Texts/QuotedText.h"

namespace platform {
namespace {

using Builder = PropertyListXmlBuilder;
using Scanner = PropertyListXmlScanner;

// libxml2 initialises itself at its first use, which is not safe if two threads do it together.
void initializeLibxml2() {
  static std::once_flag once;
  std::call_once(once, xmlInitParser);
}

struct FreeReader {
  void operator()(xmlTextReader* reader) const { xmlFreeTextReader(reader); }
};

std::string_view view(const xmlChar* text) {
  return text == nullptr ? std::string_view() : reinterpret_cast<const char*>(text);
}

// The first error that libxml2 reports.
struct SyntaxError {
  int code = 0;
  std::size_t offset = 0;  // after the fault
  std::string message;
};

class XmlReading {
 public:
  XmlReading(std::string_view text, std::string_view sourceName)
      : text_(text), sourceName_(sourceName) {}

  Result<Value> read();

 private:
  static void onError(void* self, xmlErrorPtr error);

  Builder::Step node(const xmlNode& node);
  Builder::Step element(const xmlNode& node);
  std::optional<Error> checkBeforehand() const;
  std::optional<Error> checkNameOfDoctype(const xmlNode& doctype) const;
  Error syntaxError() const;
  Error noMemory() const;
  bool endsTooSoon(std::size_t offset) const;
  Error truncated() const;
  Error problem(const Builder::Problem& problem) const;
  Error errorAt(std::size_t offset, std::string_view text,
                ErrorCode code = ErrorCode::kInvalid) const;

  std::string_view text_;
  std::string_view sourceName_;
  std::unique_ptr<xmlTextReader, FreeReader> reader_;
  std::optional<SyntaxError> syntaxError_;
  Builder builder_;
};

Result<Value> XmlReading::read() {
  if (auto error = checkBeforehand()) return std::unexpected(*std::move(error));
  initializeLibxml2();
  // No network, no loading of document types, no replacement of entities: these are libxml2's
  // defaults without further options, and XML_PARSE_NONET is an additional safeguard. The encoding
  // is known to be UTF-8, whatever the declaration says.
  constexpr int kOptions = XML_PARSE_NONET | XML_PARSE_COMPACT | XML_PARSE_IGNORE_ENC;
  reader_.reset(
      xmlReaderForMemory(text_.data(), static_cast<int>(text_.size()), nullptr, "UTF-8", kOptions));
  if (!reader_) return std::unexpected(noMemory());
  xmlTextReaderSetStructuredErrorHandler(reader_.get(), &XmlReading::onError, this);
  for (;;) {
    const int outcome = xmlTextReaderRead(reader_.get());
    if (syntaxError_ || outcome < 0) return std::unexpected(syntaxError());
    if (outcome == 0) break;
    const xmlNode& current = *xmlTextReaderCurrentNode(reader_.get());
    if (current.type == XML_DTD_NODE) {
      if (auto error = checkNameOfDoctype(current)) return std::unexpected(*std::move(error));
    } else if (const Builder::Step step = node(current)) {
      return std::unexpected(problem(*step));
    }
  }
  auto value = std::move(builder_).finish();
  if (!value) return std::unexpected(problem(value.error()));
  return *std::move(value);
}

// Also called for warnings, such as an entity that an external document type might define. A
// property list has no reason for a warning, so they count as errors.
void XmlReading::onError(void* self, xmlErrorPtr error) {
  auto& reading = *static_cast<XmlReading*>(self);
  if (reading.syntaxError_) return;
  const long consumed = xmlTextReaderByteConsumed(reading.reader_.get());
  const std::size_t offset =
      consumed < 0 ? 0 : std::min(static_cast<std::size_t>(consumed), reading.text_.size());
  reading.syntaxError_ = SyntaxError{error->code, offset, error->message ? error->message : ""};
}

// Reads the type from the node, which costs nothing. For a text the reader's own function scans all
// of it to distinguish white space.
Builder::Step XmlReading::node(const xmlNode& node) {
  switch (node.type) {
    case XML_ELEMENT_NODE: {
      const bool ends = xmlTextReaderNodeType(reader_.get()) == XML_READER_TYPE_END_ELEMENT;
      return ends ? builder_.endElement() : element(node);
    }
    case XML_TEXT_NODE:
    case XML_CDATA_SECTION_NODE:
      return builder_.text(view(node.content));
    case XML_ENTITY_REF_NODE:
      return builder_.entityReference(view(node.name));
    default:  // Other kinds of libxml2, such as comments and instructions, are ignored.
      return std::nullopt;
  }
}

Builder::Step XmlReading::element(const xmlNode& node) {
  Builder::Attributes attributes;
  attributes.unknown = node.nsDef != nullptr || node.ns != nullptr;
  for (const xmlAttr* attribute = node.properties; attribute; attribute = attribute->next) {
    if (view(attribute->name) == "version" && attribute->ns == nullptr) {
      attributes.version = attribute->children ? view(attribute->children->content) : "";
    } else {
      attributes.unknown = true;
    }
  }
  const bool isEmptyTag = xmlTextReaderIsEmptyElement(reader_.get()) == 1;
  return builder_.startElement(view(node.name), attributes, isEmptyTag);
}

// Checks before libxml2 sees the text: inputs that would cost it too much, and declarations, which
// could change the meaning of the text (entities, default attributes).
std::optional<Error> XmlReading::checkBeforehand() const {
  const auto doctype = Scanner::findDoctype(text_);
  if (doctype &&
      Scanner::hasInternalSubset(text_.substr(doctype->begin, doctype->end - doctype->begin))) {
    return errorAt(doctype->begin,
                   "the document type declares something of its own, expected none or only the "
                   "public one");
  }
  if (const auto tag = Scanner::findTagLongerThan(text_, kMaxPropertyListTagBytes)) {
    return errorAt(tag->begin, fmt::format("a tag of more than {} bytes", kMaxPropertyListTagBytes),
                   ErrorCode::kExhausted);
  }
  return std::nullopt;
}

std::optional<Error> XmlReading::checkNameOfDoctype(const xmlNode& doctype) const {
  if (view(doctype.name) == "plist") return std::nullopt;
  const auto found = Scanner::findDoctype(text_);
  return errorAt(found ? found->begin : 0, fmt::format("document type {}, expected plist",
                                                       shownInMessage(view(doctype.name))));
}

Error XmlReading::syntaxError() const {
  if (!syntaxError_) return noMemory();
  const std::size_t offset = syntaxError_->offset;
  if (endsTooSoon(offset)) return truncated();
  const auto lastBefore = [&](char mark) {
    const std::size_t found = text_.substr(0, offset).rfind(mark);
    return found == text_.npos ? offset : found;
  };
  const std::string message(withoutSurroundingWhiteSpace(syntaxError_->message));
  const std::string text = fmt::format("{}, expected well-formed XML", shownInMessage(message));
  switch (syntaxError_->code) {
    case XML_ERR_DOCUMENT_END:
      return errorAt(offset, "content after </plist>, expected the end of the file");
    case XML_ERR_UNDECLARED_ENTITY:
    case XML_WAR_UNDECLARED_ENTITY: {
      const std::size_t begin = lastBefore('&');
      return errorAt(begin, fmt::format("entity {}, expected none but &amp; &lt; &gt; &quot; "
                                        "&apos; and character references",
                                        shownInMessage(text_.substr(begin, offset - begin))));
    }
    case XML_ERR_TAG_NAME_MISMATCH:
      return errorAt(lastBefore('<'), text);
    default:  // Other kinds of libxml2.
      return errorAt(offset, text);
  }
}

// The only failure for which libxml2 gives no reason.
Error XmlReading::noMemory() const {
  return Error{ErrorCode::kExhausted, 0, fmt::format("{}: no memory to read XML", sourceName_)};
}

// Whether the error of libxml2 at `offset` means that the file ends inside an item.
bool XmlReading::endsTooSoon(std::size_t offset) const {
  if (text_.find_first_not_of(kXmlWhiteSpace, offset) == text_.npos) {
    return Scanner::findUnclosed(text_) || syntaxError_->code == XML_ERR_DOCUMENT_END ||
           syntaxError_->code == XML_ERR_DOCUMENT_EMPTY;
  }
  const auto unclosed = Scanner::findUnclosed(text_);
  if (!unclosed) return false;
  return unclosed->name.empty() ? offset >= unclosed->begin
                                : syntaxError_->code == XML_ERR_DOCUMENT_END;
}

// libxml2 reports "Extra content at the end of the document" for a truncated document.
Error XmlReading::truncated() const {
  if (withoutSurroundingWhiteSpace(text_).empty()) {
    return errorAt(text_.size(), "the file is empty, expected a property list");
  }
  const auto unclosed = Scanner::findUnclosed(text_);
  if (!unclosed) return errorAt(text_.size(), "the file ends here, expected <plist>");
  const TextPosition opened = positionInText(text_, unclosed->begin);
  if (unclosed->name.empty()) {
    return errorAt(text_.size(), fmt::format("the file ends inside what begins at {}:{}, expected "
                                             "the rest of it",
                                             opened.line, opened.column));
  }
  const std::string name = shownInMessage(unclosed->name);
  return errorAt(text_.size(), fmt::format("the file ends inside <{}> of {}:{}, expected </{}>",
                                           name, opened.line, opened.column, name));
}

Error XmlReading::problem(const Builder::Problem& problem) const {
  const Scanner::Piece tag = Scanner::findTag(text_, problem.place.tag);
  std::size_t offset = tag.begin;
  switch (problem.place.at) {
    case Builder::Place::At::kTag:
      break;
    case Builder::Place::At::kContent:
      offset = Scanner::findContent(text_, tag.end);
      break;
  }
  return errorAt(offset, problem.text, problem.code);
}

Error XmlReading::errorAt(std::size_t offset, std::string_view text, ErrorCode code) const {
  Error error = errorInText(text_, offset, sourceName_, text);
  error.code = code;
  return error;
}

}  // namespace

Result<Value> readXmlPropertyList(std::span<const std::uint8_t> bytes,
                                  std::string_view sourceName) {
  std::string converted;
  const Result<std::string_view> text = utf8OfXml(bytes, sourceName, converted);
  if (!text) return std::unexpected(text.error());
  return XmlReading(*text, sourceName).read();
}

}  // namespace platform
