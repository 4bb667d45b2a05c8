#pragma once

#include <string>

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

// The steps of writePropertyList(), which see.

// What keeps `value` from being written, if anything does. The writers below take only values that
// pass.
Result<void> checkWritable(const Value& value, PropertyListFormat format);

// kExhausted for a text above the limit, which the writing stops at.
Result<std::string> xmlPropertyListText(const Value& value);
Result<Data> binaryPropertyListBytes(const Value& value);

}  // namespace platform
