#include "Platform/PropertyLists/PropertyListXmlScanner.h"

#include <algorithm>
#include <vector>

#include "Platform/PropertyLists/PropertyListScalars.h"

namespace platform {

using Piece = PropertyListXmlScanner::Piece;

namespace {

bool isTag(PropertyListXmlScanner::Token token) {
  using Token = PropertyListXmlScanner::Token;
  return token == Token::kStartTag || token == Token::kEndTag || token == Token::kEmptyTag;
}

}  // namespace

std::optional<Piece> PropertyListXmlScanner::next() {
  if (offset_ >= text_.size()) return std::nullopt;
  const std::string_view rest = text_.substr(offset_);
  Piece piece;
  if (rest.front() != '<') {
    piece = {Token::kText, offset_, std::min(text_.find('<', offset_), text_.size()), true};
  } else if (rest.starts_with("<!--")) {
    piece = until(Token::kComment, 4, "-->");
  } else if (rest.starts_with("<![CDATA[")) {
    piece = until(Token::kCharacterData, 9, "]]>");
  } else if (rest.starts_with("<?")) {
    piece = until(Token::kInstruction, 2, "?>");
  } else if (rest.starts_with("<!DOCTYPE")) {
    piece = doctype();
  } else if (rest.starts_with("<!")) {
    piece = until(Token::kInstruction, 2, ">");  // A truncated item of the above, or no XML.
  } else {
    piece = tag();
  }
  offset_ = piece.end;
  return piece;
}

Piece PropertyListXmlScanner::until(Token token, std::size_t contentBegin,
                                    std::string_view terminator) {
  const std::size_t found = text_.find(terminator, offset_ + contentBegin);
  if (found == std::string_view::npos) return {token, offset_, text_.size(), false};
  return {token, offset_, found + terminator.size(), true};
}

Piece PropertyListXmlScanner::tag() {
  const bool closes = text_.substr(offset_).starts_with("</");
  std::size_t at = offset_ + 1;
  char quote = 0;
  for (; at < text_.size() && (quote != 0 || text_[at] != '>'); ++at) {
    const char character = text_[at];
    // A tag must not contain it even in quotes, so a quote is missing.
    if (character == '<') return {Token::kText, offset_, at, true};
    if (quote == 0 && (character == '"' || character == '\'')) {
      quote = character;
    } else if (character == quote) {
      quote = 0;
    }
  }
  if (at >= text_.size()) {
    return {closes ? Token::kEndTag : Token::kStartTag, offset_, text_.size(), false};
  }
  const bool empty = !closes && text_[at - 1] == '/';
  const Token token = closes ? Token::kEndTag : empty ? Token::kEmptyTag : Token::kStartTag;
  return {token, offset_, at + 1, true};
}

Piece PropertyListXmlScanner::doctype() {
  bool subset = false;
  std::size_t at = offset_ + 2;
  while (at < text_.size() && (subset || text_[at] != '>')) {
    if (text_.substr(at).starts_with("<!--")) {
      at = std::min(text_.find("-->", at + 4), text_.size());
      continue;
    }
    if (text_[at] == '[') subset = true;
    if (text_[at] == ']') subset = false;
    at = text_[at] == '"' || text_[at] == '\'' ? afterQuote(at) : at + 1;
  }
  if (at >= text_.size()) return {Token::kDoctype, offset_, text_.size(), false};
  return {Token::kDoctype, offset_, at + 1, true};
}

std::size_t PropertyListXmlScanner::afterQuote(std::size_t quote) const {
  const std::size_t closing = text_.find(text_[quote], quote + 1);
  return closing == std::string_view::npos ? text_.size() : closing + 1;
}

Piece PropertyListXmlScanner::findTag(std::string_view text, std::size_t number) {
  PropertyListXmlScanner scanner(text);
  while (const auto piece = scanner.next()) {
    if (isTag(piece->token) && number-- == 0) return *piece;
  }
  return {Token::kText, text.size(), text.size(), true};
}

std::optional<Piece> PropertyListXmlScanner::findTagLongerThan(std::string_view text,
                                                               std::size_t bytes) {
  // A tag contains no other "<", so most documents need only a search for these.
  const auto mayHaveOne = [text, bytes] {
    std::size_t last = text.find('<');
    while (last != text.npos) {
      const std::size_t next = text.find('<', last + 1);
      if (std::min(next, text.size()) - last > bytes) return true;
      last = next;
    }
    return false;
  };
  if (!mayHaveOne()) return std::nullopt;
  PropertyListXmlScanner scanner(text);
  while (const auto piece = scanner.next()) {
    if (isTag(piece->token) && piece->end - piece->begin > bytes) return piece;
  }
  return std::nullopt;
}

std::size_t PropertyListXmlScanner::findContent(std::string_view text, std::size_t offset) {
  PropertyListXmlScanner scanner(text);
  scanner.offset_ = offset;
  while (const auto piece = scanner.next()) {
    if (piece->token == Token::kCharacterData) return piece->begin;
    if (piece->token != Token::kText) continue;
    const std::size_t found = text.find_first_not_of(kXmlWhiteSpace, piece->begin);
    if (found < piece->end) return found;
  }
  return text.size();
}

std::optional<Piece> PropertyListXmlScanner::findDoctype(std::string_view text) {
  PropertyListXmlScanner scanner(text);
  while (const auto piece = scanner.next()) {
    if (piece->token == Token::kDoctype) return piece;
    if (isTag(piece->token)) return std::nullopt;
  }
  return std::nullopt;
}

bool PropertyListXmlScanner::hasInternalSubset(std::string_view doctype) {
  PropertyListXmlScanner scanner(doctype);
  std::size_t at = 0;
  while (at < doctype.size() && doctype[at] != '[') {
    at = doctype[at] == '"' || doctype[at] == '\'' ? scanner.afterQuote(at) : at + 1;
  }
  for (++at; at < doctype.size() && doctype[at] != ']';) {
    if (doctype.substr(at).starts_with("<!--")) {
      const std::size_t end = doctype.find("-->", at + 4);
      at = end == doctype.npos ? doctype.size() : end + 3;
    } else if (kXmlWhiteSpace.find(doctype[at++]) == kXmlWhiteSpace.npos) {
      return true;
    }
  }
  return false;
}

std::optional<PropertyListXmlScanner::OpenElement> PropertyListXmlScanner::findUnclosed(
    std::string_view text) {
  PropertyListXmlScanner scanner(text);
  std::vector<OpenElement> open;
  while (const auto piece = scanner.next()) {
    if (!piece->complete) return OpenElement{{}, piece->begin};
    if (piece->token == Token::kEndTag && !open.empty()) open.pop_back();
    if (piece->token != Token::kStartTag) continue;
    const std::string_view tag = text.substr(piece->begin + 1, piece->end - piece->begin - 2);
    open.push_back({tag.substr(0, tag.find_first_of(kXmlWhiteSpace)), piece->begin});
  }
  if (open.empty()) return std::nullopt;
  return open.back();
}

}  // namespace platform
