#pragma once

#include <expected>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include <nlohmann/json.hpp>

#include "Platform/Values/Value.h"
#include "Tools/servicemanagerctl/Output.h"

// Settings as the tool reads and writes them.

struct SettingState {
  std::string key;
  platform::Value value;   // nil where there is none
  bool isDefault = false;  // nobody has set it, but somebody has registered a default
};

// "boolean", "integer", "real", "string", "data", "date", "array", "dictionary"; "null" for the
// null marker, "none" for nil.
std::string_view typeName(const platform::Value& value);

// The value that a word of the command line means. Of that type: "boolean" (true, yes, on, 1 and
// their opposites), "integer", "real", "number" (an integer where it is one, else a real),
// "string", "data" (in base 64). Without a type: of the kind that `current` has, if that is one of
// these; else true and false are booleans, what is a number is one, and the rest is a string. Fails
// with what is wrong.
std::expected<platform::Value, std::string> parseSetting(const std::string& text,
                                                         const std::optional<std::string>& type,
                                                         const platform::Value& current);

// Every line with a line end. No setting at all is told in words.
std::string asTable(const std::vector<SettingState>& settings, std::string_view domain,
                    Reader reader);
nlohmann::ordered_json asJson(const SettingState& setting);
nlohmann::ordered_json asJson(const std::vector<SettingState>& settings);

// What the server holds after a change, in a sentence.
std::string asSentence(const SettingState& setting, std::string_view domain);
