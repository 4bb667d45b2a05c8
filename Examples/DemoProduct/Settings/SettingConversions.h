#pragma once

#include <cstdint>

#include "Platform/Values/Value.h"

// What a setting is to somebody who asks for it as another kind. Numbers and texts are turned into
// each other; everything else, and nil, is nil or zero.

// A string as it stands, a number as its text (a boolean is "1" or "0"); else nil.
platform::Value settingAsString(const platform::Value& setting);

// A number without its fraction, at the nearest end of the range where it does not fit (and 0 where
// it is none); the number that a text begins with; else 0.
std::int64_t settingAsInteger(const platform::Value& setting);

// A number; a text that is one; else 0.
double settingAsDouble(const platform::Value& setting);

// Whether a number is not 0; whether a text is "true", "YES", "on" or "1" in any letter case; else
// false.
bool settingAsBool(const platform::Value& setting);
