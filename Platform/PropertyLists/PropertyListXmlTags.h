#pragma once

#include <cstddef>
#include <optional>
#include <string>
#include <string_view>

namespace platform {

// Finds places in the text of an XML document. These functions know enough of XML to distinguish
// tags from similar text, and rely on expat for the rest.

// The offset of the first tag of more than `bytes` bytes. expat stores all attributes of a tag.
std::optional<std::size_t> findXmlTagLongerThan(std::string_view text, std::size_t bytes);

// The name in the start or end tag at `offset`.
std::string_view nameOfXmlTag(std::string_view text, std::size_t offset);

// The reference "&...;" at `offset`; as far as it goes if its end is missing.
std::string_view xmlReferenceAt(std::string_view text, std::size_t offset);

// The first reference in a tag to an entity that XML does not predefine.
std::optional<std::string_view> findUnknownReference(std::string_view tag);

struct XmlFault {
  std::size_t offset = 0;
  std::string what;
  std::string expected;
};

// The reason why a parser can't accept the character at `offset`, which may lie before it.
XmlFault faultInXml(std::string_view text, std::size_t offset);

}  // namespace platform
