#include "Platform/PropertyLists/PropertyListXmlReader.h"

#include <algorithm>
#include <memory>
#include <optional>
#include <string>
#include <type_traits>
#include <utility>
#include <vector>

#include <expat.h>
#include <fmt/core.h>

#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Platform/PropertyLists/PropertyListXmlBuilder.h"
#include "Platform/PropertyLists/PropertyListXmlEncoding.h"
#include "Platform/PropertyLists/PropertyListXmlTags.h"
#include "Platform/Texts/QuotedText.h"

namespace platform {
namespace {

using Builder = PropertyListXmlBuilder;
using XmlProblem = Builder::Problem;

struct FreeParser {
  void operator()(XML_Parser parser) const { XML_ParserFree(parser); }
};

XmlProblem malformed(std::size_t offset, std::string text) {
  return {ErrorCode::kInvalid, offset, std::move(text)};
}

XmlProblem unknownEntity(std::size_t offset, std::string_view reference) {
  return malformed(offset, fmt::format("entity {}, expected none but &amp; &lt; &gt; &quot; "
                                       "&apos; and character references",
                                       shownInMessage(reference)));
}

// Feeds a builder with the events of expat, which stops at the first fault and stores no tree.
class XmlReading {
 public:
  XmlReading(std::string_view text, std::string_view sourceName)
      : text_(text), sourceName_(sourceName) {}

  Result<Value> read();

 private:
  // Calls a member function for an event, until there is a problem.
  template <auto kFunction, typename... Arguments>
  static void XMLCALL call(void* self, Arguments... arguments);

  void setHandlers();
  Builder::Step startElement(const XML_Char* name, const XML_Char** attributes);
  Builder::Step endElement(const XML_Char* name);
  Builder::Step characters(const XML_Char* text, int size);
  Builder::Step skippedEntity(const XML_Char* name, int isParameter);
  Builder::Step other(const XML_Char* text, int size);
  Builder::Step startDoctype(const XML_Char* name, const XML_Char* system, const XML_Char* open,
                             int hasSubset);
  Builder::Step endDoctype();
  Builder::Step instruction(const XML_Char* target, const XML_Char* data);
  XmlProblem declaration() const;

  std::size_t offset() const {
    return static_cast<std::size_t>(XML_GetCurrentByteIndex(parser_.get()));
  }
  std::string_view currentToken() const {
    return text_.substr(offset(), static_cast<std::size_t>(XML_GetCurrentByteCount(parser_.get())));
  }
  XmlProblem syntaxProblem() const;
  XmlProblem truncated() const;
  Error errorOf(const XmlProblem& problem) const;

  std::string_view text_;
  std::string_view sourceName_;
  std::unique_ptr<std::remove_pointer_t<XML_Parser>, FreeParser> parser_;
  std::optional<XmlProblem> problem_;
  std::optional<std::size_t> doctype_;  // the offset of the document type that is being read
  std::vector<std::size_t> open_;       // the offsets of the start tags of open elements
  Builder builder_;
};

template <auto kFunction, typename... Arguments>
void XMLCALL XmlReading::call(void* self, Arguments... arguments) {
  auto& reading = *static_cast<XmlReading*>(self);
  // A stopped parser may still report the rest of a token.
  if (reading.problem_) return;
  reading.problem_ = (reading.*kFunction)(arguments...);
  if (reading.problem_) XML_StopParser(reading.parser_.get(), XML_FALSE);
}

// Without a handler for external entities nothing outside the text is ever read.
void XmlReading::setHandlers() {
  XML_Parser parser = parser_.get();
  XML_SetUserData(parser, this);
  XML_SetElementHandler(parser, call<&XmlReading::startElement>, call<&XmlReading::endElement>);
  XML_SetCharacterDataHandler(parser, call<&XmlReading::characters>);
  XML_SetSkippedEntityHandler(parser, call<&XmlReading::skippedEntity>);
  XML_SetDefaultHandlerExpand(parser, call<&XmlReading::other>);
  XML_SetDoctypeDeclHandler(parser, call<&XmlReading::startDoctype>, call<&XmlReading::endDoctype>);
  XML_SetProcessingInstructionHandler(parser, call<&XmlReading::instruction>);
  // Declarations could change the meaning of the text: by entities, or by default attributes.
  XML_SetEntityDeclHandler(parser, [](void* self, const XML_Char*, int, const XML_Char*, int,
                                      const XML_Char*, const XML_Char*, const XML_Char*,
                                      const XML_Char*) { call<&XmlReading::declaration>(self); });
  XML_SetAttlistDeclHandler(
      parser, [](void* self, const XML_Char*, const XML_Char*, const XML_Char*, const XML_Char*,
                 int) { call<&XmlReading::declaration>(self); });
  XML_SetNotationDeclHandler(
      parser, [](void* self, const XML_Char*, const XML_Char*, const XML_Char*, const XML_Char*) {
        call<&XmlReading::declaration>(self);
      });
  XML_SetElementDeclHandler(parser, [](void* self, const XML_Char*, XML_Content* model) {
    auto& reading = *static_cast<XmlReading*>(self);
    XML_FreeContentModel(reading.parser_.get(), model);
    call<&XmlReading::declaration>(self);
  });
}

Result<Value> XmlReading::read() {
  if (const auto tag = findXmlTagLongerThan(text_, kMaxPropertyListTagBytes)) {
    return std::unexpected(
        errorOf({ErrorCode::kExhausted, *tag,
                 fmt::format("a tag of more than {} bytes", kMaxPropertyListTagBytes)}));
  }
  // The encoding is known to be UTF-8, whatever the declaration says.
  parser_.reset(XML_ParserCreate("UTF-8"));
  if (!parser_) return std::unexpected(Error{ErrorCode::kExhausted, 0, "no memory to read XML"});
  setHandlers();
  const XML_Status status =
      XML_Parse(parser_.get(), text_.data(), static_cast<int>(text_.size()), XML_TRUE);
  if (problem_) return std::unexpected(errorOf(*problem_));
  if (status != XML_STATUS_OK) return std::unexpected(errorOf(syntaxProblem()));
  auto value = std::move(builder_).finish();
  if (!value) return std::unexpected(errorOf(value.error()));
  return *std::move(value);
}

Builder::Step XmlReading::startElement(const XML_Char* name, const XML_Char** attributes) {
  // Where a document type names an external subset, expat drops unknown entities of attributes.
  const std::string_view tag = currentToken();
  if (const auto reference = findUnknownReference(tag)) {
    return unknownEntity(offset() + static_cast<std::size_t>(reference->data() - tag.data()),
                         *reference);
  }
  open_.push_back(offset());
  Builder::Attributes known;
  for (; *attributes != nullptr; attributes += 2) {
    if (std::string_view(*attributes) == "version") {
      known.version = attributes[1];
    } else {
      known.unknown = true;
    }
  }
  return builder_.startElement(offset(), name, known);
}

Builder::Step XmlReading::endElement(const XML_Char*) {
  open_.pop_back();
  return builder_.endElement();
}

Builder::Step XmlReading::characters(const XML_Char* text, int size) {
  return builder_.text(offset(), {text, static_cast<std::size_t>(size)});
}

Builder::Step XmlReading::skippedEntity(const XML_Char* name, int) {
  return unknownEntity(offset(), fmt::format("&{};", name));
}

// A reference to a parameter entity has no event of its own.
Builder::Step XmlReading::other(const XML_Char* text, int size) {
  if (!doctype_ || size == 0 || *text != '%') return std::nullopt;
  return declaration();
}

Builder::Step XmlReading::startDoctype(const XML_Char* name, const XML_Char*, const XML_Char*,
                                       int) {
  // The parser stands at the end of the declaration, or at its bracket.
  doctype_ = text_.rfind("<!DOCTYPE", offset());
  if (std::string_view(name) == "plist") return std::nullopt;
  return malformed(*doctype_,
                   fmt::format("document type {}, expected plist", shownInMessage(name)));
}

Builder::Step XmlReading::endDoctype() {
  doctype_.reset();
  return std::nullopt;
}

Builder::Step XmlReading::instruction(const XML_Char*, const XML_Char*) {
  if (!doctype_) return std::nullopt;
  return declaration();
}

XmlProblem XmlReading::declaration() const {
  return malformed(doctype_.value_or(0),
                   "the document type declares something of its own, expected none or only the "
                   "public one");
}

XmlProblem XmlReading::syntaxProblem() const {
  const XML_Error error = XML_GetErrorCode(parser_.get());
  std::size_t at = std::min(offset(), text_.size());
  switch (error) {
    case XML_ERROR_NO_MEMORY:
      return {ErrorCode::kExhausted, at, "no memory to read XML"};
    case XML_ERROR_NO_ELEMENTS:
    case XML_ERROR_UNCLOSED_TOKEN:
    case XML_ERROR_UNCLOSED_CDATA_SECTION:
    case XML_ERROR_PARTIAL_CHAR:
      return truncated();
    case XML_ERROR_JUNK_AFTER_DOC_ELEMENT:
      return malformed(at, "content after </plist>, expected the end of the file");
    case XML_ERROR_UNDEFINED_ENTITY:
      return unknownEntity(at, xmlReferenceAt(text_, at));
    case XML_ERROR_BAD_CHAR_REF:
      return malformed(at, fmt::format("{} stands for no character, expected well-formed XML",
                                       shownInMessage(xmlReferenceAt(text_, at))));
    case XML_ERROR_TAG_MISMATCH: {
      const TextPosition opened = positionInText(text_, open_.back());
      const std::string name = shownInMessage(nameOfXmlTag(text_, open_.back()));
      at = text_.rfind('<', at);  // The parser stands at the name.
      return malformed(at, fmt::format("</{}> inside <{}> of {}:{}, expected </{}>",
                                       shownInMessage(nameOfXmlTag(text_, at)), name, opened.line,
                                       opened.column, name));
    }
    case XML_ERROR_INVALID_TOKEN: {
      const XmlFault fault = faultInXml(text_, at);
      return malformed(fault.offset, fmt::format("{}, expected {}", fault.what, fault.expected));
    }
    case XML_ERROR_SYNTAX:
      // A keyword that the end of the file cuts looks like another one.
      if (text_.find_first_of("\"'<>[] \t\r\n", at) == text_.npos) return truncated();
      [[fallthrough]];
    default:  // Errors of XML that need no place of their own.
      return malformed(at, fmt::format("{}, expected well-formed XML", XML_ErrorString(error)));
  }
}

// expat reports the same error for an empty file and for one that ends in an element.
XmlProblem XmlReading::truncated() const {
  const std::size_t end = text_.size();
  if (withoutSurroundingWhiteSpace(text_).empty()) {
    return malformed(end, "the file is empty, expected a property list");
  }
  const std::size_t at = offset();
  if (XML_GetErrorCode(parser_.get()) != XML_ERROR_NO_ELEMENTS && at < end) {
    const TextPosition begun = positionInText(text_, at);
    return malformed(end, fmt::format("the file ends inside what begins at {}:{}, expected the "
                                      "rest of it",
                                      begun.line, begun.column));
  }
  if (open_.empty()) return malformed(end, "the file ends here, expected <plist>");
  const TextPosition opened = positionInText(text_, open_.back());
  const std::string name = shownInMessage(nameOfXmlTag(text_, open_.back()));
  return malformed(end, fmt::format("the file ends inside <{}> of {}:{}, expected </{}>", name,
                                    opened.line, opened.column, name));
}

Error XmlReading::errorOf(const XmlProblem& problem) const {
  Error error = errorInText(text_, problem.offset, sourceName_, problem.text);
  error.code = problem.code;
  return error;
}

// Names the format of a file that does not begin with a tag.
std::optional<std::string> otherFormat(std::string_view text) {
  const std::string_view content = withoutSurroundingWhiteSpace(text);
  if (content.empty() || content.front() == '<') return std::nullopt;
  constexpr std::string_view kExpected = "expected an XML or binary property list";
  switch (content.front()) {
    case '{':
    case '[':
    case '(': {
      const std::size_t mark = content.find_first_of(":=;(");
      const bool isOld = content.front() == '(' || (mark != content.npos && content[mark] != ':');
      return fmt::format(
          "{}, {}",
          isOld ? "a property list in the old text format" : "a text that looks like JSON",
          kExpected);
    }
    default:
      return fmt::format("a text that is no XML, {}", kExpected);
  }
}

}  // namespace

Result<Value> readXmlPropertyList(std::span<const std::uint8_t> bytes,
                                  std::string_view sourceName) {
  std::string converted;
  const Result<std::string_view> text = utf8OfXml(bytes, sourceName, converted);
  if (!text) return std::unexpected(text.error());
  if (const auto other = otherFormat(*text)) {
    const std::size_t begin = text->find_first_not_of(kXmlWhiteSpace);
    return std::unexpected(errorInText(*text, begin, sourceName, *other));
  }
  return XmlReading(*text, sourceName).read();
}

}  // namespace platform
