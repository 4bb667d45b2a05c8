#pragma once

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

// Returns why `value` can't be written, if it can't. The writers accept only values that pass.
Result<void> checkWritable(const Value& value, PropertyListFormat format);

}  // namespace platform
