#pragma once

#include <string>

#include "Platform/Values/Value.h"

namespace platform {

// The text of a value in a log line: a string unchanged, a boolean as 1 or 0, a real in the
// shortest form that reads back, a date as "2026-01-02 03:04:05 +0000", data as "<00010203 04>", a
// collection as its single-line description, the null marker as "<null>", nil as "(null)".
std::string description(const Value& value);

// "[value, value]" and "{key : value, key : value}"; collections in them have the same form.
std::string singleLineDescription(const Array& array);
std::string singleLineDescription(const Dictionary& dictionary);

}  // namespace platform
