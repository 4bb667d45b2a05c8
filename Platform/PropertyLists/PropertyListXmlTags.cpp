#include "Platform/PropertyLists/PropertyListXmlTags.h"

#include <algorithm>
#include <array>

#include <fmt/core.h>

#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Platform/Texts/QuotedText.h"

namespace platform {
namespace {

// The offset after `terminator`, searched from `offset`.
std::size_t afterNext(std::string_view text, std::size_t offset, std::string_view terminator) {
  const std::size_t found = text.find(terminator, offset);
  return found == text.npos ? text.size() : found + terminator.size();
}

// The offset after the tag at `offset`. A tag contains no other "<", even in quotes.
std::size_t afterTag(std::string_view text, std::size_t offset) {
  char quote = 0;
  for (std::size_t at = offset + 1; at < text.size(); ++at) {
    const char character = text[at];
    if (character == '<') return at;
    if (quote == 0 && character == '>') return at + 1;
    if (quote == 0 && (character == '"' || character == '\'')) {
      quote = character;
    } else if (character == quote) {
      quote = 0;
    }
  }
  return text.size();
}

bool isPredefined(std::string_view reference) {
  static constexpr std::array<std::string_view, 5> kEntities = {"&amp;", "&lt;", "&gt;", "&quot;",
                                                                "&apos;"};
  return reference.starts_with("&#") || std::ranges::find(kEntities, reference) != kEntities.end();
}

}  // namespace

std::optional<std::size_t> findXmlTagLongerThan(std::string_view text, std::size_t bytes) {
  std::size_t at = text.find('<');
  while (at < text.size()) {
    const std::string_view rest = text.substr(at);
    std::size_t end = 0;
    if (rest.starts_with("<!--")) {
      end = afterNext(text, at + 4, "-->");
    } else if (rest.starts_with("<![CDATA[")) {
      end = afterNext(text, at + 9, "]]>");
    } else if (rest.starts_with("<?")) {
      end = afterNext(text, at + 2, "?>");
    } else {
      end = afterTag(text, at);
      if (end - at > bytes) return at;
    }
    at = text.find('<', end);
  }
  return std::nullopt;
}

std::string_view nameOfXmlTag(std::string_view text, std::size_t offset) {
  std::string_view tag = text.substr(offset);
  tag.remove_prefix(tag.starts_with("</") ? 2 : 1);
  return tag.substr(0, std::min(tag.find_first_of("/>"), tag.find_first_of(kXmlWhiteSpace)));
}

std::string_view xmlReferenceAt(std::string_view text, std::size_t offset) {
  const std::string_view rest = text.substr(offset);
  const std::size_t end = rest.find_first_of("; \t\r\n<>\"'&", 1);
  if (end == rest.npos) return rest;
  return rest.substr(0, rest[end] == ';' ? end + 1 : end);
}

std::optional<std::string_view> findUnknownReference(std::string_view tag) {
  for (std::size_t at = tag.find('&'); at != tag.npos; at = tag.find('&', at + 1)) {
    const std::string_view reference = xmlReferenceAt(tag, at);
    if (!isPredefined(reference)) return reference;
  }
  return std::nullopt;
}

XmlFault faultInXml(std::string_view text, std::size_t offset) {
  // A parser notices a reference without an end only where the reference should have gone on.
  const std::size_t mark = text.substr(0, offset).find_last_of("&; \t\r\n<>");
  if (mark != text.npos && text[mark] == '&') {
    return {mark, fmt::format("{} is no reference", quotedInMessage(xmlReferenceAt(text, mark))),
            "&amp; for the character &"};
  }
  const std::string_view before = text.substr(0, offset);
  if (before.ends_with("--")) {
    return {offset - 2, "\"--\" inside a comment", "none before its end"};
  }
  const std::string_view rest = text.substr(offset);
  if (before.ends_with("]]") && rest.starts_with('>')) {
    return {offset - 2, "\"]]>\" in a text", "]]&gt;"};
  }
  if (rest.empty()) return {offset, "the file ends here", "well-formed XML"};
  // The whole character: UTF-8 was checked before.
  std::size_t size = 1;
  while (size < rest.size() && (static_cast<unsigned char>(rest[size]) & 0xC0) == 0x80) ++size;
  return {offset, fmt::format("unexpected character {}", quotedInMessage(rest.substr(0, size))),
          "well-formed XML"};
}

}  // namespace platform
