#pragma once

#include <memory>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace platform {

// Tells that somebody asked the program to end.
class TerminationSignals {
 public:
  virtual ~TerminationSignals() = default;

  // Calls `onRequest` on the run loop when the program is asked to end, also when that happened
  // before run(); from this call on a request no longer ends the program by itself. Several
  // requests that come close together may be one call. Destroying the handle ends the watch; the
  // callback itself may do so. There is one watch at a time.
  [[nodiscard]] virtual Result<std::unique_ptr<RunLoopHandle>> watchTermination(
      RunLoop::Callback onRequest) = 0;
};

}  // namespace platform
