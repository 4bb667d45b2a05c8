#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Value.h"

// Null is nil. Pure; any thread.
namespace NSDictionaryExtensions {

// Whether the dictionary is nil or has no entry.
bool isNilOrEmpty(const platform::Dictionary* dictionary);

// The value of a number (true unless it is zero), or of a text by the platform's rule, which
// differs from the boolean words: after white space and a sign it begins with Y, y, T or t, or with
// a number that is not zero. False for a key that is absent or nil and for any other value.
bool boolForKey(const platform::Dictionary& receiver, std::optional<std::string_view> key);

// "{key : value, key : value}" in the dictionary's order; collections inside look the same.
std::string singleLineDescription(const platform::Dictionary& receiver);

// The same with a line for each entry, all but the first indented by a blank. Collections inside
// stay on one line, deliberately.
std::string compactDescription(const platform::Dictionary& receiver);

}  // namespace NSDictionaryExtensions
