#pragma once

#include <string>

#include "Platform/Value.h"

// Null is nil. Pure; any thread.
namespace NSArrayExtensions {

// Whether the array is nil or has no element.
bool isNilOrEmpty(const platform::Array* array);

// "[value, value]", collections in it likewise.
std::string singleLineDescription(const platform::Array& receiver);

}  // namespace NSArrayExtensions
