#pragma once

// Other programs of the product link this library. No program of this project uses it.

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Value.h"

// Null is nil. Pure; any thread.
namespace NSArrayExtensions {

// Whether the array is nil or has no element.
bool isNilOrEmpty(const platform::Array* array);

// The value of each element under a key path ("a.b": the entry "b" of the dictionary under "a"), in
// order. An array within the path stands for all of its elements, with the null marker for an
// element without a value. Elements of `receiver` without a value are skipped. Empty if the key
// path is nil or white space.
platform::Array objectsForKeyPath(const platform::Array& receiver,
                                  std::optional<std::string_view> keyPath);

// "[value, value]"; collections inside look the same.
std::string singleLineDescription(const platform::Array& receiver);

// The same with a line for each element, all but the first indented by a blank. Collections inside
// stay on one line, deliberately.
std::string compactDescription(const platform::Array& receiver);

}  // namespace NSArrayExtensions
