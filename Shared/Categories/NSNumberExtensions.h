#pragma once

// Kept for the other programs of the product, which link this library. No program here uses it.

#include <optional>
#include <string_view>

#include "Platform/Values/Value.h"

// Boolean numbers. Pure; any thread.
namespace NSNumberExtensions {

platform::Value booleanTrue();
platform::Value booleanFalse();

// True for "true", "YES", "on" and "1" in any letter case; false for everything else, including nil
// and unknown words.
platform::Value booleanForStringValue(std::optional<std::string_view> text);

}  // namespace NSNumberExtensions
