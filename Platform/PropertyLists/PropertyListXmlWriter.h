#pragma once

#include <string>

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

// The value must have passed checkWritable(). Fails with kExhausted if the text is above the size
// limit; the writing stops there.
Result<std::string> xmlPropertyListText(const Value& value);

}  // namespace platform
