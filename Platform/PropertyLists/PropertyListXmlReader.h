#pragma once

#include <cstdint>
#include <span>
#include <string_view>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Reads XML for readPropertyList().
Result<Value> readXmlPropertyList(std::span<const std::uint8_t> bytes, std::string_view sourceName);

}  // namespace platform
