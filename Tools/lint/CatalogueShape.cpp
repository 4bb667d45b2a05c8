#include "Tools/lint/CatalogueShape.h"

#include <algorithm>
#include <string>
#include <utility>

#include <fmt/format.h>

#include "Platform/Texts/QuotedText.h"
#include "Tools/lint/KeyLint.h"

namespace lint {
namespace {

std::string_view expectedInWords(CatalogueType type) {
  switch (type) {
    case CatalogueType::kString:
      return "a string";
    case CatalogueType::kStrings:
      return "an array of strings";
    case CatalogueType::kDictionary:
      return "a dictionary";
    case CatalogueType::kDictionaries:
      return "a dictionary of dictionaries";
    case CatalogueType::kConfigurations:
      return "an array of dictionaries";
  }
  return "";
}

void addWrongType(const Node& node, std::string_view expected, Findings& findings) {
  findings.atValue(node, kWrongType,
                   fmt::format("{} is {}, expected {}", platform::quotedInMessage(node.name),
                               typeInWords(node.value), expected));
}

void checkElements(const Node& node, CatalogueType type, Findings& findings) {
  for (const Node& element : childrenOf(node)) {
    if (type == CatalogueType::kStrings) {
      if (element.value.string()) continue;
      findings.atValue(
          element, kWrongType,
          fmt::format("element {} of {} is {}, expected a string", element.name,
                      platform::quotedInMessage(node.name), typeInWords(element.value)));
    } else if (!element.value.dictionary()) {
      addWrongType(element, "a dictionary", findings);
    }
  }
}

void checkType(const Node& node, CatalogueType type, Findings& findings) {
  const bool isArray = type == CatalogueType::kStrings || type == CatalogueType::kConfigurations;
  const bool isRight = type == CatalogueType::kString ? node.value.string() != nullptr
                       : isArray                      ? node.value.array() != nullptr
                                                      : node.value.dictionary() != nullptr;
  if (!isRight) return addWrongType(node, expectedInWords(type), findings);
  if (isArray || type == CatalogueType::kDictionaries) checkElements(node, type, findings);
}

}  // namespace

std::vector<std::string_view> catalogueKeysOf(CatalogueScope scope) {
  std::vector<std::string_view> names;
  for (const CatalogueKey& key : kCatalogueKeys) {
    if (key.scope == scope) names.push_back(key.name);
  }
  return names;
}

void checkShape(const Node& node, CatalogueScope scope, Findings& findings) {
  const std::vector<std::string_view> known = catalogueKeysOf(scope);
  for (const Node& child : childrenOf(node)) {
    checkIsKnown(child, known, findings);
    for (const CatalogueKey& key : kCatalogueKeys) {
      if (key.scope == scope && key.name == child.name) checkType(child, key.type, findings);
    }
  }
  for (const CatalogueKey& key : kCatalogueKeys) {
    if (key.scope != scope || !key.isRequired || !node.value[key.name].isNil()) continue;
    const std::string where =
        node.path.empty() ? "" : fmt::format(" in {}", platform::quotedInMessage(node.path));
    findings.atKey(node, kMissingKey, fmt::format("there is no \"{}\"{}", key.name, where));
  }
}

std::vector<Node> stringsOf(const Node& node, std::string_view key) {
  const Node array = childOf(node, key);
  if (!array.value.array()) return {};
  std::vector<Node> strings = childrenOf(array);
  std::erase_if(strings, [](const Node& element) { return !element.value.string(); });
  return strings;
}

std::vector<Node> dictionariesOf(const Node& node, std::string_view key) {
  std::vector<Node> dictionaries = childrenOf(childOf(node, key));
  std::erase_if(dictionaries, [](const Node& element) { return !element.value.dictionary(); });
  return dictionaries;
}

}  // namespace lint
