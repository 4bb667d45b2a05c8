#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <span>

#include "Platform/Values/Error.h"
#include "Platform/Values/Value.h"

namespace platform {

// Answers one client of an extension's control: one handler is made for each connection and ends
// with it. A failure is sent to the client as its `osError` (EINVAL if that is 0).
class ControlHandler {
 public:
  virtual ~ControlHandler() = default;

  // The option's bytes, at most kMaxControlOptionBytes.
  virtual Result<Data> getOption(std::uint32_t option) = 0;
  // At most kMaxControlOptionBytes. The connection wipes them from its memory afterwards.
  virtual Result<void> setOption(std::uint32_t option, std::span<const std::uint8_t> bytes) = 0;
};

using MakeControlHandler = std::function<std::unique_ptr<ControlHandler>()>;

}  // namespace platform
