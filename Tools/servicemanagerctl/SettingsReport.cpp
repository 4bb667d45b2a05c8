#include "Tools/servicemanagerctl/SettingsReport.h"

#include <algorithm>
#include <iterator>

#include <fmt/format.h>

#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Shared/Categories/NSStringExtensions.h"
#include "Tools/servicemanagerctl/ValueJson.h"

namespace {

using namespace platform;
using Json = nlohmann::ordered_json;
using ValueType = Value::Type;
using Parsed = std::expected<Value, std::string>;

std::optional<bool> booleanIn(const std::string& text) {
  namespace Strings = NSStringExtensions;
  for (const char* word : {"true", "yes", "on", "1"}) {
    if (Strings::isCaseInsensitiveEqualToString(text, word)) return true;
  }
  for (const char* word : {"false", "no", "off", "0"}) {
    if (Strings::isCaseInsensitiveEqualToString(text, word)) return false;
  }
  return std::nullopt;
}

Parsed wrong(const std::string& text, std::string_view expected) {
  return std::unexpected(fmt::format("\"{}\" is not {}", abridged(text), expected));
}

Parsed parseInteger(const std::string& text) {
  if (const auto integer = integerFromText(text)) return *integer;
  return wrong(text, "an integer of 64 bits");
}

Parsed parseReal(const std::string& text) {
  const auto real = realFromText(text);
  if (real) return *real;
  return wrong(text,
               real.error() == ScalarProblem::kOutOfRange ? "a number of 64 bits" : "a number");
}

Parsed parseNumber(const std::string& text) {
  const auto integer = integerFromText(text);
  if (integer) return *integer;
  // A real would round it to another number than the user gave.
  if (integer.error() == ScalarProblem::kOutOfRange) return wrong(text, "an integer of 64 bits");
  return parseReal(text);
}

// A word like "inf" counts as a number only if --type says so.
bool beginsLikeANumber(std::string_view text) {
  if (text.starts_with('-') || text.starts_with('+')) text.remove_prefix(1);
  return !text.empty() && (text.front() == '.' || (text.front() >= '0' && text.front() <= '9'));
}

bool isOutOfRange(const std::string& text) {
  const auto integer = integerFromText(text);
  const auto real = realFromText(text);
  return (!integer && integer.error() == ScalarProblem::kOutOfRange) ||
         (!real && real.error() == ScalarProblem::kOutOfRange);
}

Parsed parseAs(std::string_view type, const std::string& text) {
  if (type == "integer") return parseInteger(text);
  if (type == "real") return parseReal(text);
  if (type == "number") return parseNumber(text);
  if (type == "string") return text;
  if (type == "boolean") {
    if (const auto boolean = booleanIn(text)) return *boolean;
    return wrong(text, "true or false");
  }
  if (auto data = dataFromText(text)) return std::move(*data);
  return wrong(text, "data in base 64");
}

bool canBeTyped(const Value& value) {
  return value.isNumber() || value.type() == ValueType::kString || value.type() == ValueType::kData;
}

}  // namespace

std::string_view typeName(const Value& value) {
  switch (value.type()) {
    case ValueType::kBoolean:
      return "boolean";
    case ValueType::kInteger:
      return "integer";
    case ValueType::kReal:
      return "real";
    case ValueType::kString:
      return "string";
    case ValueType::kData:
      return "data";
    case ValueType::kDate:
      return "date";
    case ValueType::kArray:
      return "array";
    case ValueType::kDictionary:
      return "dictionary";
    case ValueType::kNullMarker:
      return "null";
    case ValueType::kNil:
    case ValueType::kRemoteObject:
      break;
  }
  return "none";
}

Parsed parseSetting(const std::string& text, const std::optional<std::string>& type,
                    const Value& current) {
  if (type) return parseAs(*type, text);
  if (canBeTyped(current)) return parseAs(typeName(current), text);
  if (!current.isNil()) {
    return std::unexpected(
        fmt::format("a value of type {} can't be given in one word", typeName(current)));
  }
  if (text == "true" || text == "false") return text == "true";
  if (!beginsLikeANumber(text)) return text;
  auto number = parseNumber(text);
  if (number || isOutOfRange(text)) return number;
  return text;
}

std::string asTable(const std::vector<SettingState>& settings, std::string_view domain,
                    Reader reader) {
  if (settings.empty()) return fmt::format("{} has no settings.\n", domain);
  constexpr std::string_view kKeyHeading = "KEY";
  std::size_t width = kKeyHeading.size();
  for (const SettingState& setting : settings) width = std::max(width, plain(setting.key).size());
  std::string text;
  const auto out = std::back_inserter(text);
  const std::string heading =
      fmt::format("{:<{}}  {:<10}  {:<7}  VALUE", kKeyHeading, width, "TYPE", "SET");
  fmt::format_to(out, "{}\n", coloured(heading, Colour::kBold, reader));
  for (const SettingState& setting : settings) {
    fmt::format_to(out, "{:<{}}  {:<10}  {:<7}  {}\n", plain(setting.key), width,
                   typeName(setting.value), setting.isDefault ? "default" : "yes",
                   shown(setting.value));
  }
  return text;
}

Json asJson(const SettingState& setting) {
  return {{"key", setting.key},
          {"type", typeName(setting.value)},
          {"value", jsonOf(setting.value)},
          {"default", setting.isDefault}};
}

Json asJson(const std::vector<SettingState>& settings) {
  Json array = Json::array();
  for (const SettingState& setting : settings) array.push_back(asJson(setting));
  return array;
}

std::string asSentence(const SettingState& setting, std::string_view domain) {
  if (setting.value.isNil())
    return fmt::format("{} of {} is not set.\n", plain(setting.key), domain);
  return fmt::format("{} of {} is {} ({}{}).\n", plain(setting.key), domain, shown(setting.value),
                     typeName(setting.value), setting.isDefault ? ", by default" : "");
}
