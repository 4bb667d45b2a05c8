#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>

#include "Platform/RunLoops/RunLoop.h"
#include "Platform/Values/Error.h"
#include "Platform/Values/KernelIds.h"

namespace platform {

// The way in which a process ended.
struct ExitStatus {
  enum class Kind { kExited, kSignalled };
  Kind kind = Kind::kExited;
  int number = 0;  // the exit code (0 to 255), or the signal's number

  bool operator==(const ExitStatus&) const = default;
};

// Reports the end of processes, whether or not they are our children.
class ExitWatcher {
 public:
  // The status is absent if the process is not our child, or somebody else has reaped it: the
  // kernel reports it only to the parent, and only once.
  using Callback = std::move_only_function<void(std::optional<ExitStatus>)>;

  virtual ~ExitWatcher() = default;

  // Calls `onExit` once, on the run loop with Urgency::kProcessExit and never from inside this
  // call, also if `process` has ended already, reaped or not. Destroying the handle ends the watch.
  // The watcher reaps a child of ours.
  //
  // Fails with kInvalid if the number can't be a process's (0, negative, or the number of another
  // process's thread), and with kExhausted if the system has no descriptor left.
  [[nodiscard]] virtual Result<std::unique_ptr<RunLoopHandle>> watchExit(ProcessId process,
                                                                         Callback onExit) = 0;
};

}  // namespace platform
