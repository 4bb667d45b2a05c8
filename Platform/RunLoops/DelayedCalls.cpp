#include "Platform/RunLoops/DelayedCalls.h"

#include <utility>

#include "Platform/RunLoops/TimerQueue.h"

namespace platform {

void DelayedCalls::perform(Key key, RunLoop::Callback callback, Duration delay) {
  const auto [call, isNew] = calls_.try_emplace(std::move(key));
  if (!isNew) return;
  call->second.due = instantAfter(loop_.now(), delay);
  call->second.timer = loop_.startTimer(
      delay, RunLoop::Repeat::kOnce, [this, call, callback = std::move(callback)]() mutable {
        calls_.erase(call);
        callback();  // It comes last, because it may destroy this.
      });
}

std::optional<Instant> DelayedCalls::due(const Key& key) const {
  const auto call = calls_.find(key);
  return call == calls_.end() ? std::nullopt : std::optional(call->second.due);
}

std::map<std::string, Instant, std::less<>> DelayedCalls::dueOfKind(const std::string& what) const {
  std::map<std::string, Instant, std::less<>> due;
  auto call = calls_.lower_bound({what});
  for (; call != calls_.end() && call->first.what == what; ++call)
    due.emplace_hint(due.end(), call->first.whom, call->second.due);
  return due;
}

}  // namespace platform
