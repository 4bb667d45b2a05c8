#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// What an extension answers to one client of its control: one of these is made for each connection
// and ends with it. A failure reaches the client as its `osError` (EINVAL where that is 0).
class ControlHandler {
 public:
  virtual ~ControlHandler() = default;

  // The option's bytes, at most kMaxControlOptionBytes.
  virtual Result<Data> getOption(std::uint32_t option) = 0;
  // At most kMaxControlOptionBytes. They are wiped from the connection's memory afterwards.
  virtual Result<void> setOption(std::uint32_t option, std::span<const std::uint8_t> bytes) = 0;
};

using MakeControlHandler = std::function<std::unique_ptr<ControlHandler>()>;

}  // namespace platform
