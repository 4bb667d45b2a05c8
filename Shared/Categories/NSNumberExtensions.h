#pragma once

// Other programs of the product link this library. No program of this project uses it.

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
