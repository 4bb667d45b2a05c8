#pragma once

#include <memory>

#include "Platform/BackgroundServices/TerminationSignals.h"

namespace platform {

// Asks the program under test to end when the test says so.
class FakeTerminationSignals final : public TerminationSignals {
 public:
  // `loop` outlives this.
  explicit FakeTerminationSignals(RunLoop& loop) : loop_(loop) {}

  Result<std::unique_ptr<RunLoopHandle>> watchTermination(RunLoop::Callback onRequest) override;

  // As a SIGTERM would. Without a watch it would end the program; here it is a failure of the test.
  void request();

 private:
  class Watch;

  RunLoop& loop_;
  std::weak_ptr<RunLoop::Callback> onRequest_;
};

}  // namespace platform
