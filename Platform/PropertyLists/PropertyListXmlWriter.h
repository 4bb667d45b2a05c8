#pragma once

#include <string>

#include "Platform/PropertyLists/PropertyList.h"

namespace platform {

// Takes what checkWritable() lets pass. kExhausted for a text above the limit, which the writing
// stops at.
Result<std::string> xmlPropertyListText(const Value& value);

}  // namespace platform
