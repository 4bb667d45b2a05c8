#pragma once

#include <array>
#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>

#include "Platform/RunLoops/HandOverQueue.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/RunLoops/TimerQueue.h"
#include "Platform/Testing/RunLoops/PolledSources.h"

namespace platform {

// A run loop whose time passes only when a test says so, or, inside run(), by jumps from one timer
// to the next. Due callbacks run in the order of time, then of creation (a post is due when it was
// posted), but after many timers in a row a post has its turn, and the reverse. Each callback sees
// its own due time as now(), unless a wait has already passed it. Urgencies are served as on the
// real loop.
//
// Beside the loop's own callbacks there are outside events: things that happen to the program while
// it runs or waits, such as the start or end of a process. They also happen during sleepFor().
//
// Sources use real descriptors, which are only polled. Time does not pass while one of them is
// readable.
class VirtualRunLoop final : public RunLoop {
 public:
  VirtualRunLoop() = default;
  VirtualRunLoop(const VirtualRunLoop&) = delete;
  VirtualRunLoop& operator=(const VirtualRunLoop&) = delete;
  ~VirtualRunLoop() override;

  Instant now() const override { return now_.load(std::memory_order_relaxed); }
  WallTime wallTime() const override { return wallTimeAtStart_ + (now() - kStart); }
  std::unique_ptr<RunLoopHandle> startTimer(Duration delay, Repeat repeat,
                                            Callback callback) override;
  void post(Callback callback, Urgency urgency = Urgency::kOrdinary) override;
  Result<std::unique_ptr<RunLoopHandle>> watchReadable(Descriptor descriptor, Urgency urgency,
                                                       Callback callback) override;

  // Also returns if nothing is left that could ever call stop(): no timer, post, outside event or
  // readable source. (The real loop would wait for ever.)
  void run() override;
  void stop() override { stopping_ = true; }

  // Advances the time. No timer, post or source is served, but outside events happen.
  void sleepFor(Duration duration) override;

  // A wait like sleepFor() that ends early when `done` holds, which is checked at the start and
  // after the outside events of each instant. Returns whether it holds.
  bool waitFor(Duration limit, const std::function<bool()>& done);

  // Runs due callbacks until none is left.
  void runReady();

  // Advances the time and runs each callback at its due time. Continues after a stop(), which only
  // affects run().
  void advanceBy(Duration duration);

  // Steps the wall time as an administrator would; timers are not affected.
  void setWallTime(WallTime time) { wallTimeAtStart_ = time - (now() - kStart); }

  // An outside event comes before the loop's own callbacks of the same instant, and never
  // interrupts one. Events of the same instant happen in the order of these calls.
  void scheduleOutsideEvent(Duration delay, Callback event);

 private:
  struct Posted {
    TimerQueue::Key key;
    Callback callback;
  };

  // Far from zero, to detect code that takes zero for "never" or subtracts a day.
  static constexpr Instant kStart{std::chrono::hours(24 * 365)};

  bool mustStop() const { return running_ && stopping_; }
  // Delivers what has happened by now and is more urgent than this. Returns whether there was
  // anything.
  bool deliverMoreUrgent(Urgency urgency);
  bool callUrgent(Urgency urgency);
  bool callDue();
  // Calls one ordinary callback, after what is more urgent. Returns whether there was anything.
  bool serveOne();
  bool moveToNext(Instant limit);
  void runOutsideEvents(Instant until);

  std::atomic<Instant> now_ = kStart;
  WallTime wallTimeAtStart_ = std::chrono::sys_days(std::chrono::year(2026) / 1 / 2) +
                              std::chrono::hours(3) + std::chrono::minutes(4) +
                              std::chrono::seconds(5);
  std::atomic<bool> stopping_ = false;
  bool running_ = false;
  std::atomic<std::uint64_t> lastOrder_ = 0;

  TimerQueue timers_;
  std::array<HandOverQueue<Callback>, 3> urgentPosts_;  // by Urgency
  HandOverQueue<Posted> posts_;
  std::optional<Posted> nextPost_;  // the first of `posts_`, if it has been taken
  PolledSources sources_;
  bool sourceWasLast_ = false;
  bool postWasLast_ = false;
  int callsInARow_ = 0;  // of timers or of posts, while one of the other kind waits
  std::multimap<Instant, Callback> outsideEvents_;
};

}  // namespace platform
