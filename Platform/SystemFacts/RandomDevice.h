#pragma once

#include <cstddef>
#include <cstdint>
#include <span>

#include "Platform/Values/Error.h"

namespace platform {

// The system's source of unpredictable bytes, "/dev/random".
class RandomDevice {
 public:
  virtual ~RandomDevice() = default;

  // Opens it, reads up to `buffer.size()` bytes into `buffer`, closes it, and returns how many it
  // read: fewer where reading failed. Fails only where it can't be opened; the error says why.
  // Blocks until the system has gathered enough chance, which it has but for its first seconds.
  virtual Result<std::size_t> read(std::span<std::uint8_t> buffer) = 0;
};

}  // namespace platform
