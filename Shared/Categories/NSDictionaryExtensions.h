#pragma once

#include <string>

#include "Platform/Value.h"

// Null is nil. Pure; any thread.
namespace NSDictionaryExtensions {

// Whether the dictionary is nil or has no entry.
bool isNilOrEmpty(const platform::Dictionary* dictionary);

// "{key : value, key : value}" in the dictionary's order, collections in it likewise.
std::string singleLineDescription(const platform::Dictionary& receiver);

}  // namespace NSDictionaryExtensions
