#pragma once

#include <memory>

#include "Platform/BackgroundServices/TerminationSignals.h"
#include "Platform/Linux/RunLoops/AsioRunLoop.h"

namespace platform {

// Watches SIGTERM and SIGINT, whichever thread the kernel delivers them to. Programs that are
// executed from here get the default actions back.
class AsioTerminationSignals final : public TerminationSignals {
 public:
  // `loop` outlives this and its watch.
  explicit AsioTerminationSignals(AsioRunLoop& loop) : loop_(loop) {}

  Result<std::unique_ptr<RunLoopHandle>> watchTermination(RunLoop::Callback onRequest) override;

 private:
  AsioRunLoop& loop_;
};

}  // namespace platform
