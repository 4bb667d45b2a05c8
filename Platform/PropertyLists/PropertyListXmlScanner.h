#pragma once

#include <cstddef>
#include <optional>
#include <string_view>

namespace platform {

// Finds places in the text of an XML document, and inputs that libxml2 must not see. libxml2's
// reader works ahead of the nodes that it returns and stores no columns for them. The reader of
// property lists therefore only counts tags, and looks up the place of an error with this class.
//
// It knows enough XML to distinguish tags from similar text, and relies on libxml2 for the rest:
// after a syntax error its results are a best guess within the text.
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
    std::size_t end = 0;   // after its last character
    bool complete = true;  // false if the document ends inside it
  };

  struct OpenElement {
    std::string_view name;
    std::size_t begin = 0;  // of its start tag
  };

  explicit PropertyListXmlScanner(std::string_view text) : text_(text) {}

  // std::nullopt at the end of the document.
  std::optional<Piece> next();

  // The tag with this number, counted from 0 over start, end and empty tags in order; an empty
  // piece at the end if there are fewer.
  static Piece findTag(std::string_view text, std::size_t number);

  // The first tag of more than `bytes` bytes.
  static std::optional<Piece> findTagLongerThan(std::string_view text, std::size_t bytes);

  // The beginning of the first text or character data from `offset` that is not only white space.
  static std::size_t findContent(std::string_view text, std::size_t offset);

  // The document type declaration, which can only come before the first tag.
  static std::optional<Piece> findDoctype(std::string_view text);

  // Whether the brackets of a document type contain more than white space and comments.
  static bool hasInternalSubset(std::string_view doctype);

  // The innermost item that is open at the end of the document: an element, or an incomplete piece.
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
