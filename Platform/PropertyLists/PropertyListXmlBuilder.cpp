#include "Platform/PropertyLists/PropertyListXmlBuilder.h"

#include <algorithm>
#include <array>
#include <utility>

#include <fmt/core.h>

#include "Platform/PropertyLists/PropertyListLimits.h"
#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Platform/Texts/QuotedText.h"

namespace platform {
namespace {

using Problem = PropertyListXmlBuilder::Problem;
using Place = PropertyListXmlBuilder::Place;

Problem atTag(std::size_t tag, std::string text) {
  return {ErrorCode::kInvalid, {tag, Place::At::kTag}, std::move(text)};
}

Problem atContent(std::size_t tag, std::string text) {
  return {ErrorCode::kInvalid, {tag, Place::At::kContent}, std::move(text)};
}

Problem overLimitAtTag(std::size_t tag, std::string text) {
  return {ErrorCode::kExhausted, {tag, Place::At::kTag}, std::move(text)};
}

bool isBlank(std::string_view text) { return withoutSurroundingWhiteSpace(text).empty(); }

// Describes the fault of a number or date: `whatIsExpected` for a malformed one.
std::string describeScalar(ScalarProblem problem, std::string_view text,
                           std::string_view whatItIsNot, std::string_view whatIsExpected,
                           std::string_view range) {
  if (problem == ScalarProblem::kOutOfRange) {
    return fmt::format("{} is out of range, expected {}", quotedInMessage(text), range);
  }
  if (text.empty()) return fmt::format("no {}, expected {}", whatItIsNot, whatIsExpected);
  return fmt::format("{} is no {}, expected {}", quotedInMessage(text), whatItIsNot,
                     whatIsExpected);
}

}  // namespace

std::optional<PropertyListXmlBuilder::Element> PropertyListXmlBuilder::elementNamed(
    std::string_view name) {
  // The most frequent ones first.
  static constexpr std::array<std::pair<std::string_view, Element>, 11> kElements = {{
      {"key", Element::kKey},
      {"string", Element::kString},
      {"dict", Element::kDictionary},
      {"true", Element::kTrue},
      {"integer", Element::kInteger},
      {"array", Element::kArray},
      {"false", Element::kFalse},
      {"data", Element::kData},
      {"real", Element::kReal},
      {"date", Element::kDate},
      {"plist", Element::kPropertyList},
  }};
  const auto found =
      std::ranges::find(kElements, name, [](const auto& entry) { return entry.first; });
  if (found == kElements.end()) return std::nullopt;
  return found->second;
}

std::string_view PropertyListXmlBuilder::nameOf(Element element) {
  switch (element) {
    case Element::kPropertyList:
      return "plist";
    case Element::kKey:
      return "key";
    case Element::kString:
      return "string";
    case Element::kInteger:
      return "integer";
    case Element::kReal:
      return "real";
    case Element::kTrue:
      return "true";
    case Element::kFalse:
      return "false";
    case Element::kDate:
      return "date";
    case Element::kData:
      return "data";
    case Element::kArray:
      return "array";
    case Element::kDictionary:
      return "dict";
  }
  return "";
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::startElement(std::string_view name,
                                                                  const Attributes& attributes,
                                                                  bool isEmptyTag) {
  const std::size_t tag = tags_++;
  const std::optional<Element> element = elementNamed(name);
  if (!inPropertyList_) return startPropertyList(element, name, attributes);
  if (leaf_) {
    const std::string_view outer = nameOf(leaf_->element);
    return atTag(
        tag, fmt::format("<{}> inside <{}>, expected </{}>", shownInMessage(name), outer, outer));
  }
  if (!element || *element == Element::kPropertyList) {
    return atTag(tag, fmt::format("unexpected element <{}>, expected dict, array, string, integer, "
                                  "real, true, false, date, data or key",
                                  shownInMessage(name)));
  }
  if (attributes.unknown || attributes.version) {
    return atTag(tag, fmt::format("<{}> has an attribute, expected none", name));
  }
  if (Step problem = checkMayStandHere(*element, tag)) return problem;
  if (++nodes_ > kMaxPropertyListNodes) {
    return overLimitAtTag(tag, fmt::format("more than {} values and keys", kMaxPropertyListNodes));
  }
  if (*element == Element::kArray || *element == Element::kDictionary) {
    Step problem = openCollection(*element == Element::kDictionary, tag);
    return problem || !isEmptyTag ? problem : closeCollection();
  }
  leaf_ = Leaf{*element, tag};
  text_.clear();
  return isEmptyTag ? finishLeaf() : std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::startPropertyList(
    std::optional<Element> element, std::string_view name, const Attributes& attributes) {
  if (element != Element::kPropertyList) {
    return atTag(0, fmt::format("<{}>, expected <plist>", shownInMessage(name)));
  }
  if (attributes.unknown) {
    return atTag(0, "<plist> has an attribute other than version, expected none");
  }
  if (attributes.version && *attributes.version != "1.0") {
    return atTag(0, fmt::format("<plist> has version {}, expected \"1.0\"",
                                quotedInMessage(*attributes.version)));
  }
  inPropertyList_ = true;
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::checkMayStandHere(Element element,
                                                                       std::size_t tag) {
  if (collections_.empty()) {
    if (element == Element::kKey) return atTag(tag, "<key> outside <dict>, expected a value");
    if (root_.isNil()) return std::nullopt;
    return atTag(tag, fmt::format("<{}> after the value, expected </plist>", nameOf(element)));
  }
  const Collection& collection = collections_.back();
  if (!collection.isDictionary) {
    if (element != Element::kKey) return std::nullopt;
    return atTag(tag, "<key> inside <array>, expected a value or </array>");
  }
  if (element == Element::kKey && collection.key) {
    return atTag(collection.keyTag, fmt::format("<key> {} has no value, expected one before the "
                                                "next <key>",
                                                quotedInMessage(*collection.key)));
  }
  if (element != Element::kKey && !collection.key) {
    return atTag(tag,
                 fmt::format("<{}> without a key, expected <key> or </dict>", nameOf(element)));
  }
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::openCollection(bool isDictionary,
                                                                    std::size_t tag) {
  if (collections_.size() == kMaxPropertyListDepth) {
    return overLimitAtTag(
        tag, fmt::format("more than {} collections inside one another", kMaxPropertyListDepth));
  }
  collections_.emplace_back().isDictionary = isDictionary;
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::closeCollection() {
  Collection collection = std::move(collections_.back());
  collections_.pop_back();
  if (!collection.isDictionary) {
    add(Value(std::move(collection.elements)));
    return std::nullopt;
  }
  if (collection.key) {
    return atTag(collection.keyTag,
                 fmt::format("<key> {} has no value, expected one before </dict>",
                             quotedInMessage(*collection.key)));
  }
  add(Value(std::move(collection.entries)));
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::endElement() {
  ++tags_;
  if (leaf_) return finishLeaf();
  if (!collections_.empty()) return closeCollection();
  return std::nullopt;  // </plist>
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::text(std::string_view text) {
  if (leaf_) {
    text_ += text;
    return std::nullopt;
  }
  if (isBlank(text)) return std::nullopt;
  const std::string_view where = collections_.empty()               ? "<plist>"
                                 : collections_.back().isDictionary ? "<dict>"
                                                                    : "<array>";
  return atContent(tags_ == 0 ? 0 : tags_ - 1,
                   fmt::format("text {} inside {}, expected an element",
                               quotedInMessage(withoutSurroundingWhiteSpace(text)), where));
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::entityReference(std::string_view name) {
  return atContent(tags_ == 0 ? 0 : tags_ - 1,
                   fmt::format("entity &{};, expected none but &amp; &lt; &gt; &quot; &apos; and "
                               "character references",
                               shownInMessage(name)));
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::finishLeaf() {
  const Leaf leaf = *leaf_;
  if (leaf.element == Element::kKey) {
    leaf_.reset();
    return finishKey(leaf.tag);
  }
  Result<Value, std::string> value = scalar();
  leaf_.reset();
  if (!value) {
    const auto at = isBlank(text_) ? Place::At::kTag : Place::At::kContent;
    return Problem{ErrorCode::kInvalid, {leaf.tag, at}, std::move(value.error())};
  }
  add(*std::move(value));
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::finishKey(std::size_t tag) {
  Collection& dictionary = collections_.back();
  if (dictionary.entries.contains(text_)) {
    return atTag(tag, fmt::format("<key> {} occurs twice in its <dict>, expected once",
                                  quotedInMessage(text_)));
  }
  dictionary.key = std::move(text_);
  dictionary.keyTag = tag;
  return std::nullopt;
}

Result<Value, std::string> PropertyListXmlBuilder::scalar() const {
  const std::string_view trimmed = withoutSurroundingWhiteSpace(text_);
  switch (leaf_->element) {
    case Element::kString:
      return Value(text_);
    case Element::kInteger: {
      const auto integer = integerFromText(trimmed);
      if (integer) return Value(*integer);
      return std::unexpected(describeScalar(integer.error(), trimmed, "integer",
                                            "decimal digits, or 0x and hexadecimal digits",
                                            "-9223372036854775808 to 9223372036854775807"));
    }
    case Element::kReal: {
      const auto real = realFromText(trimmed);
      if (real) return Value(*real);
      return std::unexpected(describeScalar(real.error(), trimmed, "real",
                                            "a decimal number, nan or infinity",
                                            "what 64 bits can hold"));
    }
    case Element::kDate: {
      const auto date = dateFromText(trimmed);
      if (date) return Value(*date);
      return std::unexpected(describeScalar(date.error(), trimmed, "date",
                                            "the form 2026-01-02T03:04:05Z",
                                            "a day and time of the years 0001 to 9999"));
    }
    case Element::kData: {
      auto data = dataFromText(text_);
      if (data) return Value(*std::move(data));
      return std::unexpected(
          fmt::format("{} is no base64, expected groups of four of A-Z a-z 0-9 "
                      "+ / and = at the end",
                      quotedInMessage(trimmed)));
    }
    case Element::kTrue:
    case Element::kFalse:
      if (trimmed.empty()) return Value(leaf_->element == Element::kTrue);
      return std::unexpected(fmt::format("text {} inside <{}>, expected none",
                                         quotedInMessage(trimmed), nameOf(leaf_->element)));
    case Element::kPropertyList:
    case Element::kKey:
    case Element::kArray:
    case Element::kDictionary:
      break;  // They are no scalars.
  }
  std::unreachable();
}

void PropertyListXmlBuilder::add(Value value) {
  if (collections_.empty()) {
    root_ = std::move(value);
    return;
  }
  Collection& collection = collections_.back();
  if (collection.isDictionary) {
    collection.entries.set(*collection.key, std::move(value));
    collection.key.reset();
  } else {
    collection.elements.push_back(std::move(value));
  }
}

Result<Value, Problem> PropertyListXmlBuilder::finish() && {
  if (!root_.isNil()) return std::move(root_);
  return std::unexpected(atTag(0, "<plist> holds no value, expected one"));
}

}  // namespace platform
