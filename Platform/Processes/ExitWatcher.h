#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/KernelIds.h"

namespace platform {

// How a process ended.
struct ExitStatus {
  enum class Kind { kExited, kSignalled };
  Kind kind = Kind::kExited;
  int number = 0;  // the exit code (0 to 255), or the signal's number

  bool operator==(const ExitStatus&) const = default;
};

// Reports the end of processes, whether or not they are our children.
class ExitWatcher {
 public:
  // The status is absent when the process is not our child, or had been reaped by somebody else:
  // only a parent is told it, and only once.
  using Callback = std::move_only_function<void(std::optional<ExitStatus>)>;

  virtual ~ExitWatcher() = default;

  // Calls `onExit` once, on the run loop with Urgency::kProcessExit and never from inside this
  // call, also when `process` has ended already, reaped or not. Destroying the handle ends the
  // watch. A child of ours is reaped by it.
  //
  // Fails with kInvalid when the number can't name a process (0, negative, or another process's
  // thread), with kExhausted when the system has no descriptor left to give.
  [[nodiscard]] virtual Result<std::unique_ptr<RunLoopHandle>> watchExit(ProcessId process,
                                                                         Callback onExit) = 0;
};

}  // namespace platform
