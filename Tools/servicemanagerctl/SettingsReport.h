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
  platform::Value value;   // nil if there is none
  bool isDefault = false;  // nobody has set it, but a default is registered
};

// "boolean", "integer", "real", "string", "data", "date", "array", "dictionary"; "null" for the
// null marker, "none" for nil.
std::string_view typeName(const platform::Value& value);

// Parses a word of the command line as a value. `type` is "boolean" (true, yes, on, 1 and their
// opposites), "integer", "real", "number" (an integer if it is one, else a real), "string" or
// "data" (in base 64). Without a type the value gets the type of `current`, if that is one of
// these. Otherwise true and false are booleans, numbers are numbers, and all else is a string. An
// error says what is wrong.
std::expected<platform::Value, std::string> parseSetting(const std::string& text,
                                                         const std::optional<std::string>& type,
                                                         const platform::Value& current);

// Every line has a line end. Without settings the table is a sentence.
std::string asTable(const std::vector<SettingState>& settings, std::string_view domain,
                    Reader reader);
nlohmann::ordered_json asJson(const SettingState& setting);
nlohmann::ordered_json asJson(const std::vector<SettingState>& settings);

// The server's value after a change, as a sentence.
std::string asSentence(const SettingState& setting, std::string_view domain);
