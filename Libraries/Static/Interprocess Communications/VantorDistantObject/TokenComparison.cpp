#include "Libraries/Static/Interprocess Communications/VantorDistantObject/TokenComparison.h"

#include <cstddef>
#include <cstdint>

bool tokensAreEqual(const platform::Data& one, const platform::Data& other) {
  if (one.size() != other.size()) return false;
  // Volatile, so that the compiler does not end the loop at the first difference either.
  volatile std::uint8_t difference = 0;
  for (std::size_t at = 0; at < one.size(); ++at)
    difference = static_cast<std::uint8_t>(difference | (one[at] ^ other[at]));
  return difference == 0;
}
