#pragma once

#include <cstdint>

#include "Platform/Values/Value.h"

// Reads a setting as a value of another type. Numbers and texts are converted into each other;
// every other value, and nil, becomes nil or zero.

// A string as it stands, a number as its text (a boolean is "1" or "0"); else nil.
platform::Value settingAsString(const platform::Value& setting);

// The integer part of a number, limited to the integer's range (0 for NaN); the number that a text
// begins with; else 0.
std::int64_t settingAsInteger(const platform::Value& setting);

// A number; a text that is one; else 0.
double settingAsDouble(const platform::Value& setting);

// Whether a number is not 0; whether a text is "true", "YES", "on" or "1" in any letter case; else
// false.
bool settingAsBool(const platform::Value& setting);
