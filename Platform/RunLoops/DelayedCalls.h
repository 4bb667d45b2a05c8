#pragma once

#include <cstddef>
#include <list>
#include <memory>

#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// One-shot calls that end with their owner: calls that have not run when this is destroyed never
// run. Belongs to the loop's thread.
class DelayedCalls {
 public:
  // `loop` outlives this.
  explicit DelayedCalls(RunLoop& loop) : loop_(loop) {}

  // Runs `callback` on the loop after `delay`. Calls with the same end of their delays run in the
  // order of perform(). The callback may destroy this object.
  void perform(RunLoop::Callback callback, Duration delay);

  std::size_t pending() const { return calls_.size(); }

 private:
  RunLoop& loop_;
  std::list<std::unique_ptr<RunLoopHandle>> calls_;
};

}  // namespace platform
