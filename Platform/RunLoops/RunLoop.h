#pragma once

#include <functional>
#include <memory>

#include "Platform/Values/Error.h"
#include "Platform/Values/Time.h"

namespace platform {

// A file descriptor that the platform layer handed out; what it means is the layer's business.
using Descriptor = int;

// What must be known before what. Whatever has already happened of a more urgent kind is delivered
// before anything of a less urgent kind: a request handled before the exit that preceded it would
// read a dead process back, a notification handled before a connection's death would ask a dead
// peer.
enum class Urgency { kProcessExit, kConnectionDeath, kOrdinary };

// A timer or a source. Once it is destroyed its callback does not run; the callback itself may
// destroy it. Belongs to the loop's thread and must not outlive the loop.
class RunLoopHandle {
 public:
  virtual ~RunLoopHandle() = default;
};

// The main thread's event loop, and its only source of time. Every callback runs on the thread that
// called run(), one after the other, never from inside the call that registered it.
//
// Everything here belongs to that thread except post() and stop(), which any thread may call.
class RunLoop {
 public:
  using Callback = std::move_only_function<void()>;
  enum class Repeat { kOnce, kEvery };

  virtual ~RunLoop() = default;

  virtual Instant now() const = 0;
  virtual WallTime wallTime() const = 0;

  // Calls `callback` after `delay` (a negative one counts as 0), and with kEvery again after each
  // further `delay`, counted from the start so that it does not drift; periods that were missed
  // because the loop was busy are made up for by one call, not by many. Timers due at the same
  // instant run in the order of their creation. A repeating timer needs a positive delay.
  [[nodiscard]] virtual std::unique_ptr<RunLoopHandle> startTimer(Duration delay, Repeat repeat,
                                                                  Callback callback) = 0;

  // Runs `callback` on the loop as soon as its urgency's turn comes, in the order of posting. What
  // has not run when the loop is destroyed is dropped.
  virtual void post(Callback callback, Urgency urgency = Urgency::kOrdinary) = 0;

  // Calls `callback` whenever `descriptor` is readable (or at its end, or in error). An ordinary
  // source goes on calling once a turn for as long as it is readable; a more urgent one calls once,
  // since a process exits and a connection dies only once. For kConnectionDeath only the peer's end
  // counts, not what it sent before.
  //
  // The descriptor stays the caller's, must outlive the source, and may be made non-blocking. It
  // has at most one ordinary and one more urgent source. Fails with kInvalid when there is one
  // already or the descriptor can't be waited for, and with kExhausted when the system has no room
  // for it.
  [[nodiscard]] virtual Result<std::unique_ptr<RunLoopHandle>> watchReadable(Descriptor descriptor,
                                                                             Urgency urgency,
                                                                             Callback callback) = 0;

  // Serves timers, posts and sources until stop(), also when there is nothing to do. A stop() that
  // comes before run() makes the next run() return at once. Not to be called by a callback: what
  // waits inside another wait could be kept from its end.
  virtual void run() = 0;
  virtual void stop() = 0;

  // Blocks the loop's thread and serves nothing meanwhile: for the system's few deliberate waits.
  virtual void sleepFor(Duration duration) = 0;
};

}  // namespace platform
