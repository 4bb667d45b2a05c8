#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "Platform/Values/Value.h"

// Null is nil. Pure; any thread.
namespace NSArrayExtensions {

// Whether the array is nil or has no element.
bool isNilOrEmpty(const platform::Array* array);

// What each element has under a key path ("a.b": what the dictionary under "a" has under "b"), in
// order. An array on the way stands for all of its elements, with the null marker where one has no
// value. Elements of `receiver` without a value are skipped. Empty where the key path is nil or
// white space.
platform::Array objectsForKeyPath(const platform::Array& receiver,
                                  std::optional<std::string_view> keyPath);

// "[value, value]", collections in it likewise.
std::string singleLineDescription(const platform::Array& receiver);

// The same with a line for each element, all but the first set in by a blank. Collections in it
// keep to one line, deliberately.
std::string compactDescription(const platform::Array& receiver);

}  // namespace NSArrayExtensions
