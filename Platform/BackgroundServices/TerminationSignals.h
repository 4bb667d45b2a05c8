#pragma once

#include <memory>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"

namespace platform {

// Reports requests to terminate the program.
class TerminationSignals {
 public:
  virtual ~TerminationSignals() = default;

  // Calls `onRequest` on the run loop, with Urgency::kTermination, when the program is asked to
  // terminate, also if that happened before run(). From this call on, a request no longer
  // terminates the program by itself. Requests in quick succession may give one call. Destroying
  // the handle ends the watch; the callback itself may do so. Only one watch exists at a time.
  [[nodiscard]] virtual Result<std::unique_ptr<RunLoopHandle>> watchTermination(
      RunLoop::Callback onRequest) = 0;
};

}  // namespace platform
