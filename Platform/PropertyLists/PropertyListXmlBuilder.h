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
// this class knows the rules of the format. It is independent of libxml2 and stores no positions:
// an error names its place by the number of a tag.
class PropertyListXmlBuilder {
 public:
  struct Place {
    enum class At {
      kTag,      // the tag itself
      kContent,  // the first content after the tag that is not white space
    };
    std::size_t tag = 0;  // start, end and empty tags, counted from 0 in the order of the document
    At at = At::kTag;
  };

  struct Problem {
    ErrorCode code = ErrorCode::kInvalid;
    Place place;
    std::string text;
  };

  // Each step returns the problem that ends the reading, if there is one.
  using Step = std::optional<Problem>;

  struct Attributes {
    bool unknown = false;  // any attribute but "version", namespaces included
    std::optional<std::string_view> version;
  };

  Step startElement(std::string_view name, const Attributes& attributes, bool isEmptyTag);
  Step endElement();
  Step text(std::string_view text);
  // A reference to an entity that XML does not predefine.
  Step entityReference(std::string_view name);

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
    // The key whose value comes next, and its tag.
    std::optional<std::string> key;
    std::size_t keyTag = 0;
  };

  // A scalar or key that is being read, from its start tag to its end tag.
  struct Leaf {
    Element element = Element::kKey;
    std::size_t tag = 0;
  };

  static std::optional<Element> elementNamed(std::string_view name);
  static std::string_view nameOf(Element element);

  Step startPropertyList(std::optional<Element> element, std::string_view name,
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
  std::size_t tags_ = 0;
  std::size_t nodes_ = 0;
};

}  // namespace platform
