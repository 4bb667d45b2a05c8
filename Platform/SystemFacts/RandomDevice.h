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

  // Opens the device, reads up to `buffer.size()` bytes into `buffer`, and closes it. Returns the
  // number of bytes read, which is less if reading failed. Fails only if the device can't be
  // opened. Blocks until the system has gathered enough entropy, which takes only its first
  // seconds.
  virtual Result<std::size_t> read(std::span<std::uint8_t> buffer) = 0;
};

}  // namespace platform
