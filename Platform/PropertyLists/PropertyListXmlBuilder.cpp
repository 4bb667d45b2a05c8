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

PropertyListXmlBuilder::Problem at(std::size_t offset, std::string text) {
  return {ErrorCode::kInvalid, offset, std::move(text)};
}

PropertyListXmlBuilder::Problem overLimitAt(std::size_t offset, std::string text) {
  return {ErrorCode::kExhausted, offset, std::move(text)};
}

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

PropertyListXmlBuilder::Step PropertyListXmlBuilder::startElement(std::size_t tag,
                                                                  std::string_view name,
                                                                  const Attributes& attributes) {
  const std::optional<Element> element = elementNamed(name);
  if (!inPropertyList_) return startPropertyList(tag, element, name, attributes);
  if (leaf_) {
    const std::string_view outer = nameOf(leaf_->element);
    return at(tag,
              fmt::format("<{}> inside <{}>, expected </{}>", shownInMessage(name), outer, outer));
  }
  if (!element || *element == Element::kPropertyList) {
    return at(tag, fmt::format("unexpected element <{}>, expected dict, array, string, integer, "
                               "real, true, false, date, data or key",
                               shownInMessage(name)));
  }
  if (attributes.unknown || attributes.version) {
    return at(tag, fmt::format("<{}> has an attribute, expected none", name));
  }
  if (Step problem = checkMayStandHere(*element, tag)) return problem;
  if (++nodes_ > kMaxPropertyListNodes) {
    return overLimitAt(tag, fmt::format("more than {} values and keys", kMaxPropertyListNodes));
  }
  if (*element == Element::kArray || *element == Element::kDictionary) {
    return openCollection(*element == Element::kDictionary, tag);
  }
  leaf_ = Leaf{*element, tag, std::nullopt};
  text_.clear();
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::startPropertyList(
    std::size_t tag, std::optional<Element> element, std::string_view name,
    const Attributes& attributes) {
  if (element != Element::kPropertyList) {
    return at(tag, fmt::format("<{}>, expected <plist>", shownInMessage(name)));
  }
  if (attributes.unknown) {
    return at(tag, "<plist> has an attribute other than version, expected none");
  }
  if (attributes.version && *attributes.version != "1.0") {
    return at(tag, fmt::format("<plist> has version {}, expected \"1.0\"",
                               quotedInMessage(*attributes.version)));
  }
  inPropertyList_ = true;
  propertyList_ = tag;
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::checkMayStandHere(Element element,
                                                                       std::size_t tag) {
  if (collections_.empty()) {
    if (element == Element::kKey) return at(tag, "<key> outside <dict>, expected a value");
    if (root_.isNil()) return std::nullopt;
    return at(tag, fmt::format("<{}> after the value, expected </plist>", nameOf(element)));
  }
  const Collection& collection = collections_.back();
  if (!collection.isDictionary) {
    if (element != Element::kKey) return std::nullopt;
    return at(tag, "<key> inside <array>, expected a value or </array>");
  }
  if (element == Element::kKey && collection.key) {
    return at(collection.keyTag, fmt::format("<key> {} has no value, expected one before the "
                                             "next <key>",
                                             quotedInMessage(*collection.key)));
  }
  if (element != Element::kKey && !collection.key) {
    return at(tag, fmt::format("<{}> without a key, expected <key> or </dict>", nameOf(element)));
  }
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::openCollection(bool isDictionary,
                                                                    std::size_t tag) {
  if (collections_.size() == kMaxPropertyListDepth) {
    return overLimitAt(
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
    return at(collection.keyTag, fmt::format("<key> {} has no value, expected one before </dict>",
                                             quotedInMessage(*collection.key)));
  }
  add(Value(std::move(collection.entries)));
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::endElement() {
  if (leaf_) return finishLeaf();
  if (!collections_.empty()) return closeCollection();
  return std::nullopt;  // </plist>
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::text(std::size_t offset,
                                                          std::string_view text) {
  const std::size_t content = text.find_first_not_of(kXmlWhiteSpace);
  if (leaf_) {
    text_ += text;
    if (content != text.npos && !leaf_->content) leaf_->content = offset + content;
    return std::nullopt;
  }
  if (content == text.npos) return std::nullopt;
  const std::string_view where = collections_.empty()               ? "<plist>"
                                 : collections_.back().isDictionary ? "<dict>"
                                                                    : "<array>";
  return at(offset + content,
            fmt::format("text {} inside {}, expected an element",
                        quotedInMessage(withoutSurroundingWhiteSpace(text)), where));
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
    return at(leaf.content.value_or(leaf.tag), std::move(value.error()));
  }
  add(*std::move(value));
  return std::nullopt;
}

PropertyListXmlBuilder::Step PropertyListXmlBuilder::finishKey(std::size_t tag) {
  Collection& dictionary = collections_.back();
  if (dictionary.entries.contains(text_)) {
    return at(tag, fmt::format("<key> {} occurs twice in its <dict>, expected once",
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

auto PropertyListXmlBuilder::finish() && -> Result<Value, Problem> {
  if (!root_.isNil()) return std::move(root_);
  return std::unexpected(at(propertyList_, "<plist> holds no value, expected one"));
}

}  // namespace platform
