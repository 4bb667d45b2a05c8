#pragma once

#include <compare>
#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>

#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// One-shot calls that end with their owner: calls that have not run when this is destroyed never
// run. Each has a key, and a call that is pending stands for all that are asked for under its key
// meanwhile, so that the number of pending calls is bounded by the number of keys. Belongs to the
// loop's thread.
class DelayedCalls {
 public:
  struct Key {
    std::string what;       // the kind of the call
    std::string whom = {};  // its subject, such as a label; may be empty
    auto operator<=>(const Key&) const = default;
  };

  // `loop` outlives this.
  explicit DelayedCalls(RunLoop& loop) : loop_(loop) {}

  // Runs `callback` on the loop after `delay`, unless a call with this key is pending: that one
  // stays as it is. Calls with the same end of their delays run in the order of perform(). The
  // callback may destroy this object.
  void perform(Key key, RunLoop::Callback callback, Duration delay);

  // When the call with this key runs; nothing if none is pending.
  std::optional<Instant> due(const Key& key) const;

  // When each pending call of this kind runs, by its subject.
  std::map<std::string, Instant, std::less<>> dueOfKind(const std::string& what) const;

  std::size_t pending() const { return calls_.size(); }

 private:
  struct Call {
    Instant due;
    std::unique_ptr<RunLoopHandle> timer;
  };
  RunLoop& loop_;
  std::map<Key, Call> calls_;
};

}  // namespace platform
