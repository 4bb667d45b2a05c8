#pragma once

#include <functional>
#include <memory>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Platform/Processes/ExitWatcher.h"
#include "Platform/Values/Error.h"

namespace jobhost {

// Reaps the children of this process that nobody else waits for: what the processes of jobs left
// behind and the kernel gave to us.
class OrphanReaper {
 public:
  // Whether somebody else waits for this child, and will reap it before the loop's next ordinary
  // callback once it has ended.
  using IsAwaited = std::function<bool(platform::ProcessId)>;

  // `loop` outlives this.
  OrphanReaper(platform::AsioRunLoop& loop, IsAwaited isAwaited);
  OrphanReaper(const OrphanReaper&) = delete;
  OrphanReaper& operator=(const OrphanReaper&) = delete;
  ~OrphanReaper();

  // Becomes the parent of orphans and listens for their ends.
  platform::Result<void> start();

 private:
  class Signals;

  void reap();

  platform::AsioRunLoop& loop_;
  IsAwaited isAwaited_;
  std::unique_ptr<Signals> signals_;
};

}  // namespace jobhost
