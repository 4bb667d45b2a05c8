#pragma once

#include <cstddef>
#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Builds a value from the elements and texts of an XML property list, one event at a time. Only
// this class knows the rules of the format. It is independent of the parser; an error names its
// place by the offset that came with an event.
class PropertyListXmlBuilder {
 public:
  struct Problem {
    ErrorCode code = ErrorCode::kInvalid;
    std::size_t offset = 0;
    std::string text;
  };

  // Each step returns the problem that ends the reading, if there is one.
  using Step = std::optional<Problem>;

  struct Attributes {
    bool unknown = false;  // any attribute but "version", namespaces included
    std::optional<std::string_view> version;
  };

  Step startElement(std::size_t offset, std::string_view name, const Attributes& attributes);
  Step endElement();
  // A text may come in pieces.
  Step text(std::size_t offset, std::string_view text);

  // The value. Call it after all events.
  Result<Value, Problem> finish() &&;

 private:
  enum class Element {
    kPropertyList,
    kKey,
    kString,
    kInteger,
    kReal,
    kTrue,
    kFalse,
    kDate,
    kData,
    kArray,
    kDictionary,
  };

  // A collection that is being read.
  struct Collection {
    bool isDictionary = false;
    Array elements;
    Dictionary entries;
    // The key whose value comes next, and the offset of its tag.
    std::optional<std::string> key;
    std::size_t keyTag = 0;
  };

  // A scalar or key that is being read, from its start tag to its end tag.
  struct Leaf {
    Element element = Element::kKey;
    std::size_t tag = 0;                 // its offset
    std::optional<std::size_t> content;  // the offset of the first that is not white space
  };

  static std::optional<Element> elementNamed(std::string_view name);
  static std::string_view nameOf(Element element);

  Step startPropertyList(std::size_t offset, std::optional<Element> element, std::string_view name,
                         const Attributes& attributes);
  Step checkMayStandHere(Element element, std::size_t tag);
  Step openCollection(bool isDictionary, std::size_t tag);
  Step closeCollection();
  Step finishLeaf();
  Step finishKey(std::size_t tag);
  Result<Value, std::string> scalar() const;
  void add(Value value);

  std::vector<Collection> collections_;
  std::optional<Leaf> leaf_;
  std::string text_;  // of the leaf; keeps its memory between leaves
  Value root_;
  bool inPropertyList_ = false;
  std::size_t propertyList_ = 0;  // the offset of <plist>
  std::size_t nodes_ = 0;
};

}  // namespace platform
