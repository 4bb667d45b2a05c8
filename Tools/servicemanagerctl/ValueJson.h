#pragma once

#include <string>

#include <nlohmann/json.hpp>

#include "Platform/Values/Value.h"

// A value as JSON: data as base64, a date as text, a real that is infinite or no number as "nan",
// "inf" or "-inf", and any other value that JSON lacks as null.
nlohmann::ordered_json jsonOf(const platform::Value& value);

// The same as text on one line, unambiguous, which can't steer a terminal: in ASCII unless the
// locale has UTF-8.
std::string shown(const platform::Value& value);

// Text that another program has chosen: as shown(), but without its quotation marks.
std::string plain(const std::string& text);

// As plain(), but the first 80 characters at most: for messages.
std::string abridged(const std::string& text);

// For programs. Ill-formed UTF-8 becomes U+FFFD, since paths may hold any bytes.
std::string dumped(const nlohmann::ordered_json& json);

// The version of the answers to programs, which the schemas describe. Within a version keys are
// added, and none is renamed or removed.
inline constexpr int kJsonVersion = 1;

// The same for an answer: an object gets the version. Arrays and null stay as they are.
std::string dumpedAnswer(nlohmann::ordered_json json);

// An event of a stream, on one line, with the version.
std::string dumpedLine(nlohmann::ordered_json event);
