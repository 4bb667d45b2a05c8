#include "Tools/lint/Findings.h"

#include <algorithm>
#include <cassert>
#include <tuple>
#include <utility>

namespace lint {

void Findings::atValue(const Node& node, std::string_view code, std::string message) {
  add(node.place ? std::optional(node.place->value) : std::nullopt, node.path, code,
      std::move(message));
}

void Findings::atKey(const Node& node, std::string_view code, std::string message) {
  add(node.place ? std::optional(node.isOfDictionary ? node.place->key : node.place->value)
                 : std::nullopt,
      node.path, code, std::move(message));
}

void Findings::add(std::optional<platform::TextPosition> position, std::string path,
                   std::string_view code, std::string message) {
  if (areFull()) {
    areTooMany_ = true;
    return;
  }
  const FindingCode* known = findingCode(code);
  assert(known);
  findings_.push_back({file_, position, std::move(path), known, std::move(message)});
}

std::vector<Finding> Findings::take() {
  const auto place = [](const Finding& finding) {
    const auto position = finding.position.value_or(platform::TextPosition{});
    return std::tuple(position.line, position.column, finding.code->code, finding.message);
  };
  std::ranges::sort(findings_, {}, place);
  if (areTooMany_) {
    findings_.push_back({file_, std::nullopt, "", findingCode(kTooManyFindings),
                         "there are more findings than are listed here"});
  }
  return std::move(findings_);
}

}  // namespace lint
