#pragma once

#include <algorithm>
#include <optional>

#include "Platform/SystemFacts/RandomDevice.h"

namespace platform {

// Returns the bytes 1, 2, 3 and so on, unless it is made to fail.
class FakeRandomDevice final : public RandomDevice {
 public:
  // From now on opening it fails.
  void failToOpen(Error error) { openError_ = std::move(error); }
  // From now on it returns at most `bytes` bytes.
  void limitTo(std::size_t bytes) { limit_ = bytes; }

  Result<std::size_t> read(std::span<std::uint8_t> buffer) override {
    if (openError_) return std::unexpected(*openError_);
    const std::size_t size = std::min(buffer.size(), limit_);
    for (std::size_t at = 0; at < size; ++at) buffer[at] = ++last_;
    return size;
  }

 private:
  std::optional<Error> openError_;
  std::size_t limit_ = SIZE_MAX;
  std::uint8_t last_ = 0;
};

}  // namespace platform
