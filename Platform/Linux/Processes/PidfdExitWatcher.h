#pragma once

#include <memory>

#include "Platform/Processes/ExitWatcher.h"

namespace platform {

// One pidfd for each watched process, held from watchExit() until its end. So the number can't come
// to mean another process, and the process need not be a child.
class PidfdExitWatcher final : public ExitWatcher {
 public:
  // `loop` outlives this and its watches.
  explicit PidfdExitWatcher(RunLoop& loop) : loop_(loop) {}

  Result<std::unique_ptr<RunLoopHandle>> watchExit(ProcessId process, Callback onExit) override;

 private:
  RunLoop& loop_;
};

}  // namespace platform
