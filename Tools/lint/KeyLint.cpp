#include "Tools/lint/KeyLint.h"

#include <algorithm>

#include <fmt/format.h>

#include "Platform/Texts/QuotedText.h"
#include "Tools/lint/NearName.h"

namespace lint {

using platform::quotedInMessage;
using platform::Value;

std::string suggestion(std::string_view name, std::span<const std::string_view> known) {
  const auto near = nearName(name, known);
  return near ? fmt::format(" (did you mean \"{}\"?)", *near) : "";
}

void checkIsKnown(const Node& node, std::span<const std::string_view> known, Findings& findings) {
  if (std::ranges::find(known, node.name) != known.end()) return;
  // The search takes time, which a file with very many findings need not get.
  const std::string near = findings.areFull() ? "" : suggestion(node.name, known);
  findings.atKey(
      node, near.empty() ? kUnknownKey : kMisspeltKey,
      fmt::format("unknown key {}{}; it has no effect", quotedInMessage(node.name), near));
}

std::string_view typeInWords(const Value& value) {
  switch (value.type()) {
    case Value::Type::kNil:
      return "nothing";
    case Value::Type::kNullMarker:
      return "the null marker";
    case Value::Type::kBoolean:
      return "a boolean";
    case Value::Type::kInteger:
      return "an integer";
    case Value::Type::kReal:
      return "a real";
    case Value::Type::kString:
      return "a string";
    case Value::Type::kData:
      return "data";
    case Value::Type::kDate:
      return "a date";
    case Value::Type::kArray:
      return "an array";
    case Value::Type::kDictionary:
      return "a dictionary";
    case Value::Type::kRemoteObject:
      return "a remote object";
  }
  return "";
}

}  // namespace lint
