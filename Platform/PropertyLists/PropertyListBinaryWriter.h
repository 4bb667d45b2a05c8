#pragma once

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

// The value must have passed checkWritable(). Fails with kExhausted if the list is above the size
// limit; the writing stops there.
Result<Data> binaryPropertyListBytes(const Value& value);

}  // namespace platform
