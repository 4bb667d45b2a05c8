#pragma once

#include <cstdint>
#include <span>

#include "Platform/RunLoops/RunLoop.h"

namespace jobhost {

// The record of a start. The new process writes it itself before it executes its program.
struct StartTicket {
  platform::Descriptor file = -1;  // open for appending
  std::span<std::uint8_t> record;  // the process fills in what only it knows
};

}  // namespace jobhost
