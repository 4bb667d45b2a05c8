#pragma once

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

// What keeps `value` from being written, if anything does. The writers take only values that pass.
Result<void> checkWritable(const Value& value, PropertyListFormat format);

}  // namespace platform
