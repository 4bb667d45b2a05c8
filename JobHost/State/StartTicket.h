#pragma once

#include <cstdint>
#include <span>

#include "Platform/RunLoops/RunLoop.h"

namespace jobhost {

// The record of a start. The new process writes it itself before it executes its program. If it
// can't, it executes its program all the same, and a later host finds it by its mark (JobMark.h).
struct StartTicket {
  platform::Descriptor file = -1;  // open for appending, -1 for none
  std::span<std::uint8_t> record;  // the process fills in what only it knows
  int* writeError = nullptr;       // set to the errno of the write, or 0. May be null.
};

}  // namespace jobhost
