#pragma once

#include <cstddef>
#include <limits>
#include <map>
#include <memory>
#include <set>
#include <vector>

#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {

// Reports the ends of processes that the test has started. Any other number is a process that has
// ended.
class FakeExitWatcher final : public ExitWatcher {
 public:
  // Whether the program under test is the parent and so learns the exit status.
  enum class Parent { kProgram, kSomebodyElse };

  // `loop` outlives this and its watches.
  explicit FakeExitWatcher(VirtualRunLoop& loop) : loop_(loop) {}

  // A number may be used again after its process has ended.
  void startProcess(ProcessId process, Parent parent = Parent::kSomebodyElse);
  // A thread that is not the first of its process: it has a number, but can't be watched.
  void startThread(ProcessId thread) { threads_.insert(thread); }
  // A child of the program stays until a watch has reaped it or reap() is called.
  void endProcess(ProcessId process, ExitStatus status = {});
  void reap(ProcessId process);

  // Whether it runs, or has ended without being reaped.
  bool isKnown(ProcessId process) const { return processes_.contains(process); }

  // The number of watches of processes that have not ended.
  std::size_t watchCount() const;
  // With this number of watches the system has no descriptor left.
  void setWatchLimit(std::size_t limit) { watchLimit_ = limit; }

  Result<std::unique_ptr<RunLoopHandle>> watchExit(ProcessId process, Callback onExit) override;

 private:
  struct Process;
  struct Watched;
  class Watch;

  void report(const std::shared_ptr<Watched>& watched);

  VirtualRunLoop& loop_;
  // Shared with the watches, because the number may be used again while they live.
  std::map<ProcessId, std::shared_ptr<Process>> processes_;
  std::set<ProcessId> threads_;
  std::size_t watchLimit_ = std::numeric_limits<std::size_t>::max();
};

}  // namespace platform
