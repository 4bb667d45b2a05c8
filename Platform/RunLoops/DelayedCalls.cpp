#include "Platform/RunLoops/DelayedCalls.h"

#include <utility>

namespace platform {

void DelayedCalls::perform(RunLoop::Callback callback, Duration delay) {
  const auto call = calls_.emplace(calls_.end());
  *call = loop_.startTimer(delay, RunLoop::Repeat::kOnce,
                           [this, call, callback = std::move(callback)]() mutable {
                             calls_.erase(call);
                             callback();  // It comes last, because it may destroy this object.
                           });
}

}  // namespace platform
