#pragma once

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

// Takes what checkWritable() lets pass. kExhausted for a text above the limit, which the writing
// stops at.
Result<Data> binaryPropertyListBytes(const Value& value);

}  // namespace platform
