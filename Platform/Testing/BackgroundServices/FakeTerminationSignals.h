#pragma once

#include <memory>

#include "Platform/BackgroundServices/TerminationSignals.h"

namespace platform {

// Delivers termination requests of the test to the program under test.
class FakeTerminationSignals final : public TerminationSignals {
 public:
  // `loop` outlives this.
  explicit FakeTerminationSignals(RunLoop& loop) : loop_(loop) {}

  Result<std::unique_ptr<RunLoopHandle>> watchTermination(RunLoop::Callback onRequest) override;

  // Acts like a SIGTERM. Without a watch that would end the program; here the test fails.
  void request();

 private:
  class Watch;

  RunLoop& loop_;
  std::weak_ptr<RunLoop::Callback> onRequest_;
};

}  // namespace platform
