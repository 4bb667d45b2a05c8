#pragma once

#include <cstdint>

#include "Platform/Texts/IntegerValue.h"

namespace platform {

// A place in a text, in characters.
struct NSRange {
  std::int64_t location = NSNotFound;
  std::int64_t length = 0;

  bool operator==(const NSRange&) const = default;
};

}  // namespace platform
