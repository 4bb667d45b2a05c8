#pragma once

#include <utility>

#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// Serves the loop one turn after the other until `isDone` holds. It must come to hold.
template <class Predicate>
void turnUntil(RunLoop& loop, Predicate isDone) {
  while (!isDone()) {
    loop.post([&loop] { loop.stop(); });
    loop.run();
  }
}

}  // namespace platform
