#pragma once

#include <string>

#include "Platform/SystemFacts/RandomDevice.h"

namespace platform {

// Random bytes from the kernel's device.
class DevRandom final : public RandomDevice {
 public:
  DevRandom() : DevRandom("/dev/random") {}
  explicit DevRandom(std::string path) : path_(std::move(path)) {}

  Result<std::size_t> read(std::span<std::uint8_t> buffer) override;

 private:
  const std::string path_;
};

}  // namespace platform
