#pragma once

#include <cstdio>
#include <cstdlib>
#include <string_view>

namespace fuzz {

// Ends the process, so that the fuzzer keeps the input.
inline void require(bool holds, std::string_view what) {
  if (holds) return;
  std::fprintf(stderr, "does not hold: %.*s\n", static_cast<int>(what.size()), what.data());
  std::abort();
}

}  // namespace fuzz
