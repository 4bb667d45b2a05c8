#pragma once

#include <chrono>

#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// How often turnUntil() looks, which is how much too long it may measure.
constexpr Duration kTurnCheckInterval = std::chrono::microseconds(200);

// Serves the loop until `isDone` holds. It must come to hold. The loop sleeps while there is
// nothing to do, so that the processes of a measurement have the processors to themselves.
template <class Predicate>
void turnUntil(RunLoop& loop, Predicate isDone) {
  if (isDone()) return;
  const auto check = loop.startTimer(kTurnCheckInterval, RunLoop::Repeat::kEvery, [&] {
    if (isDone()) loop.stop();
  });
  loop.run();
}

}  // namespace platform
