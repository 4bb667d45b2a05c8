#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Platform/Values/Value.h"

// A value as JSON has it: data as base64, a date as text, a real that is no number or
// infinite as "nan", "inf" or "-inf", what else JSON has nothing for as null.
nlohmann::ordered_json jsonOf(const platform::Value& value);

// The same as text on one line, in ASCII: unambiguous, and it can't steer a terminal.
std::string shown(const platform::Value& value);

// Text that somebody else has chosen, as shown() but without its quotation marks.
std::string plain(const std::string& text);

// As plain(), and of a long text no more than its first 80 characters: for messages.
std::string abridged(const std::string& text);

// For programs: what is no UTF-8 in it (paths may hold any bytes) becomes U+FFFD.
std::string dumped(const nlohmann::ordered_json& json);
