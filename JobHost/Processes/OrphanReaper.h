#pragma once

#include <functional>
#include <memory>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Reaps the children of this process that no other code waits for: orphans of the jobs' processes,
// which the kernel gave to this process.
class OrphanReaper {
 public:
  // Whether other code waits for this child and, once it has ended, reaps it before the loop's next
  // ordinary callback.
  using IsAwaited = std::function<bool(platform::ProcessId)>;

  // `loop` outlives this.
  OrphanReaper(platform::AsioRunLoop& loop, IsAwaited isAwaited);
  OrphanReaper(const OrphanReaper&) = delete;
  OrphanReaper& operator=(const OrphanReaper&) = delete;
  ~OrphanReaper();

  // Makes this process the parent of orphans and watches for their ends.
  platform::Result<void> start();

 private:
  class Signals;

  void reap();

  platform::AsioRunLoop& loop_;
  IsAwaited isAwaited_;
  std::unique_ptr<Signals> signals_;
};

}  // namespace jobhost
