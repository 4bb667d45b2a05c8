#include <algorithm>
#include <cstddef>

#include <fmt/format.h>

#include "ServiceManager/ServiceManager/OperatorFacts.h"
#include "Tools/servicemanagerctl/Explanation.h"
#include "Tools/servicemanagerctl/NextStep.h"
#include "Tools/servicemanagerctl/ValueJson.h"

using namespace platform;

namespace {

// A narrower column would have a word on each line.
constexpr std::size_t kLeastColumn = 20;

}  // namespace

std::string asText(const Explanation& explanation, Reader reader, std::size_t width) {
  std::string text;
  for (const std::string& line : wrapped(explanation.verdict, width))
    text += coloured(line, explanation.runs ? Colour::kGreen : Colour::kBold, reader) + "\n";
  text += "\n";
  std::size_t headings = 0;
  for (const auto& [heading, sentence] : explanation.details)
    headings = std::max(headings, heading.size());
  const std::size_t indent = headings + 4;
  const std::size_t column = width >= indent + kLeastColumn ? width - indent : 0;
  for (const auto& [heading, sentence] : explanation.details) {
    std::string begin = fmt::format("  {:<{}}  ", heading, headings);
    for (const std::string& line : wrapped(sentence, column)) {
      text += begin + line + "\n";
      begin.assign(indent, ' ');
    }
  }
  return text;
}

nlohmann::ordered_json asJson(const Explanation& explanation, const Value& facts) {
  const std::string* label = facts[kFactLabel].string();
  return {{"label", label ? *label : ""}, {"runs", explanation.runs},
          {"reason", explanation.reason}, {"verdict", explanation.verdict},
          {"nextStep", nextStep(facts)},  {"facts", jsonOf(facts)}};
}
