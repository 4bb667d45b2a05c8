#pragma once

#include <cstddef>
#include <string_view>

namespace platform {

// Whether a file can have this name in a folder without leading out of it or being hidden.
constexpr bool isPlainFileName(std::string_view name, std::size_t mostBytes) {
  return !name.empty() && name.size() <= mostBytes && name.front() != '.' && !name.contains('/') &&
         !name.contains('\0');
}

}  // namespace platform
