#include "Tools/servicemanagerctl/ValueJson.h"

#include <cmath>
#include <string_view>

#include <langinfo.h>

#include "Platform/PropertyLists/PropertyListScalars.h"
#include "Tools/servicemanagerctl/Output.h"

using namespace platform;
using Json = nlohmann::ordered_json;

namespace {

// JSON has no such numbers; these words can be parsed back.
Json jsonOfReal(double real) {
  if (std::isnan(real)) return "nan";
  if (std::isinf(real)) return real < 0 ? "-inf" : "inf";
  return real;
}

}  // namespace

Json jsonOf(const Value& value) {
  switch (value.type()) {
    case Value::Type::kBoolean:
      return *value.boolean();
    case Value::Type::kInteger:
      return *value.integer();
    case Value::Type::kReal:
      return jsonOfReal(*value.real());
    case Value::Type::kString:
      return *value.string();
    case Value::Type::kData:
      return textFromData(*value.data());
    case Value::Type::kDate:
      return textFromDate(*value.date());
    case Value::Type::kArray: {
      Json array = Json::array();
      for (const Value& element : *value.array()) array.push_back(jsonOf(element));
      return array;
    }
    case Value::Type::kDictionary: {
      Json object = Json::object();
      for (const auto& [key, element] : *value.dictionary()) object[key] = jsonOf(element);
      return object;
    }
    case Value::Type::kNil:
    case Value::Type::kNullMarker:
    case Value::Type::kRemoteObject:
      break;
  }
  return nullptr;
}

std::string shown(const Value& value) {
  const bool isUtf8 = std::string_view(::nl_langinfo(CODESET)) == "UTF-8";
  std::string text = jsonOf(value).dump(-1, ' ', !isUtf8, Json::error_handler_t::replace);
  return isUtf8 ? escaped(text) : text;
}

std::string plain(const std::string& text) {
  const std::string quoted = shown(Value(text));
  return quoted.substr(1, quoted.size() - 2);
}

std::string abridged(const std::string& text) {
  constexpr std::size_t kMostCharacters = 80;
  constexpr std::size_t kMostBytes = 4 * kMostCharacters;
  std::size_t characters = 0;
  for (std::size_t i = 0; i < text.size(); ++i) {
    const bool isContinued = (static_cast<unsigned char>(text[i]) & 0xC0) == 0x80;
    if (!isContinued) ++characters;
    if (characters > kMostCharacters || i >= kMostBytes) return plain(text.substr(0, i)) + "...";
  }
  return plain(text);
}

std::string dumped(const Json& json) {
  return json.dump(2, ' ', false, Json::error_handler_t::replace) + "\n";
}

std::string dumpedAnswer(Json json) {
  if (json.is_object()) json["version"] = kJsonVersion;
  return dumped(json);
}

std::string dumpedLine(Json event) {
  Json line{{"version", kJsonVersion}};
  line.update(event);
  return line.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n";
}
