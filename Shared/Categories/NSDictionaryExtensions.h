#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Value.h"

// Null is nil. Pure; any thread.
namespace NSDictionaryExtensions {

// Whether the dictionary is nil or has no entry.
bool isNilOrEmpty(const platform::Dictionary* dictionary);

// The value of a number (true unless it is zero), or of a text as the platform reads it, which is
// not by the boolean words: white space and a sign aside it begins with Y, y, T or t, or with a
// number that is not zero. False for a key that is absent or nil and for any other value.
bool boolForKey(const platform::Dictionary& receiver, std::optional<std::string_view> key);

// "{key : value, key : value}" in the dictionary's order, collections in it likewise.
std::string singleLineDescription(const platform::Dictionary& receiver);

// The same with a line for each entry, all but the first set in by a blank. Collections in it keep
// to one line, deliberately.
std::string compactDescription(const platform::Dictionary& receiver);

}  // namespace NSDictionaryExtensions
