#pragma once

#include <cstdint>
#include <span>

#include "Platform/RunLoops/RunLoop.h"

namespace jobhost {

// The record of a start, which the new process itself writes before it executes its program.
struct StartTicket {
  platform::Descriptor file = -1;  // open for appending
  std::span<std::uint8_t> record;  // with a place for what only the process knows
};

}  // namespace jobhost
