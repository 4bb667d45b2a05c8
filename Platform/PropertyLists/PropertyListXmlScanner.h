#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace platform {

// Finds places in the text of an XML document, and what libxml2 must not get to see. libxml2's
// reader works ahead of the nodes that it hands out and keeps no columns for them; so the reader of
// property lists only counts tags, and looks an error's place up with this, once there is one.
//
// It knows enough of XML to tell tags from what merely looks like them, and relies on libxml2 for
// the rest: what it says about text behind an error of syntax is a best guess, within the text.
class PropertyListXmlScanner {
 public:
  enum class Token {
    kText,
    kStartTag,
    kEndTag,
    kEmptyTag,  // <a/>
    kCharacterData,
    kComment,
    kInstruction,
    kDoctype,
  };

  // One piece of the document.
  struct Piece {
    Token token = Token::kText;
    std::size_t begin = 0;
    std::size_t end = 0;   // behind its last character
    bool complete = true;  // false when the document ends inside it
  };

  struct OpenElement {
    std::string_view name;
    std::size_t begin = 0;  // of its start tag
  };

  explicit PropertyListXmlScanner(std::string_view text) : text_(text) {}

  // Nothing at the end of the document.
  std::optional<Piece> next();

  // The tag of this number, from 0, counted over start, end and empty tags in their order; an empty
  // piece at the end where there are fewer.
  static Piece findTag(std::string_view text, std::size_t number);

  // The first tag of more than so many bytes.
  static std::optional<Piece> findTagLongerThan(std::string_view text, std::size_t bytes);

  // Begin of the first text or character data from `offset` that is not white space alone.
  static std::size_t findContent(std::string_view text, std::size_t offset);

  // The document type declaration, which stands before the first tag if at all.
  static std::optional<Piece> findDoctype(std::string_view text);

  // Whether there is more than white space and comments in the brackets of a document type.
  static bool hasInternalSubset(std::string_view doctype);

  // What is still open where the document ends: an element, or a piece that is not complete.
  static std::optional<OpenElement> findUnclosed(std::string_view text);

 private:
  Piece until(Token token, std::size_t contentBegin, std::string_view terminator);
  Piece tag();
  Piece doctype();
  std::size_t afterQuote(std::size_t quote) const;

  std::string_view text_;
  std::size_t offset_ = 0;
};

}  // namespace platform
