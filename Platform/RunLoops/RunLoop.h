#pragma once

#include <cstdint>
#include <functional>
#include <memory>

#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

// A file descriptor of the platform layer; only the layer knows its meaning.
using Descriptor = int;

// The order of delivery. A request that is handled before the exit that preceded it would find a
// dead process, and a notification that is handled before a connection's death would call a dead
// peer. So before each callback, the loop delivers the more urgent events that have happened by
// then. Events that these cause in their turn wait for the next callback: otherwise processes that
// end all the time would keep the loop from everything else. A request to terminate waits for
// nothing but the callback that is running.
enum class Urgency : std::uint8_t { kTermination, kProcessExit, kConnectionDeath, kOrdinary };

// A timer or a source. Once it is destroyed, its callback does not run; the callback itself may
// destroy it. Belongs to the loop's thread and must not outlive the loop.
class RunLoopHandle {
 public:
  virtual ~RunLoopHandle() = default;
};

// The main thread's event loop, and its only source of time. Every callback runs on the thread that
// called run(), one after the other, never from inside the call that registered it. Timers, posts
// and sources take turns, so that none of them waits for an endless row of the others.
//
// Everything here belongs to that thread, except post() and stop(), which any thread may call.
class RunLoop {
 public:
  using Callback = std::move_only_function<void()>;
  enum class Repeat { kOnce, kEvery };

  virtual ~RunLoop() = default;

  virtual Instant now() const = 0;
  virtual WallTime wallTime() const = 0;

  // Calls `callback` after `delay` (a negative one counts as 0), and with kEvery again after each
  // further `delay`. Periods are counted from the start, so they don't drift. One call makes up for
  // all periods that were missed because the loop was busy. Timers due at the same instant run in
  // the order of their creation. A repeating timer needs a positive delay.
  [[nodiscard]] virtual std::unique_ptr<RunLoopHandle> startTimer(Duration delay, Repeat repeat,
                                                                  Callback callback) = 0;

  // Runs `callback` on the loop in the turn of its urgency, in the order of posting. Calls that
  // have not run when the loop is destroyed are dropped.
  virtual void post(Callback callback, Urgency urgency = Urgency::kOrdinary) = 0;

  // Calls `callback` when `descriptor` is readable (or at its end, or in error). An ordinary source
  // calls once a turn for as long as it is readable. A more urgent one calls only once, because a
  // process exits and a connection dies only once. For kConnectionDeath only the peer's end counts,
  // not unread data.
  //
  // The caller keeps the descriptor, which must outlive the source and may be made non-blocking. It
  // has at most one ordinary and one more urgent source. Fails with kInvalid if there is one
  // already or the descriptor can't be waited for, and with kExhausted if the system has no room
  // for it.
  [[nodiscard]] virtual Result<std::unique_ptr<RunLoopHandle>> watchReadable(Descriptor descriptor,
                                                                             Urgency urgency,
                                                                             Callback callback) = 0;

  // Serves timers, posts and sources until stop(), even if there is nothing to do. A stop() before
  // run() makes the next run() return at once. A callback must not call it: the inner wait could
  // keep the outer one from ending.
  virtual void run() = 0;
  virtual void stop() = 0;

  // Blocks the loop's thread and serves nothing meanwhile; for the system's few deliberate waits.
  virtual void sleepFor(Duration duration) = 0;
};

}  // namespace platform
