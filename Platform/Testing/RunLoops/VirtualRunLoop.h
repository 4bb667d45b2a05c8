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

// A run loop whose time passes only when a test says so, or, inside run(), from one timer straight
// to the next. What is due runs in the order of time, then of creation (a post counts as due when
// it was posted), and each callback sees its own due time as now(), unless a wait has already taken
// the time past it. Urgencies are served as on the real loop.
//
// Beside the loop's own callbacks there are outside events: things that happen to the program while
// it runs or waits, such as a process that starts or ends. They also happen during sleepFor().
//
// Sources work on real descriptors but are only looked at, never waited for. Time stands still as
// long as one of them is readable.
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

  // Returns also when nothing is left that could ever call stop(): no timer, post, outside event or
  // readable source. (The real loop would wait for ever.)
  void run() override;
  void stop() override { stopping_ = true; }

  // Moves the time; no timer, post or source is served, outside events happen.
  void sleepFor(Duration duration) override;

  // A wait like sleepFor() that ends early when `done` holds, which is asked at the start and after
  // the outside events of each instant. Whether it came to hold.
  bool waitFor(Duration limit, const std::function<bool()>& done);

  // Runs what is due now, until nothing is.
  void runReady();

  // Lets the time pass and runs all that falls due, at its time. Goes on behind a stop(), which
  // concerns run() only.
  void advanceBy(Duration duration);

  // Steps the wall time, as an administrator would; timers take no notice.
  void setWallTime(WallTime time) { wallTimeAtStart_ = time - (now() - kStart); }

  // At its instant an outside event comes before the loop's own callbacks, and never interrupts
  // one. Events of the same instant happen in the order of this call.
  void scheduleOutsideEvent(Duration delay, Callback event);

 private:
  struct Posted {
    TimerQueue::Key key;
    Callback callback;
  };

  // Far from zero, so that code which takes zero for "never" or subtracts a day is found out.
  static constexpr Instant kStart{std::chrono::hours(24 * 365)};

  bool callUrgent();
  bool callDue();
  bool serveOne();
  bool moveToNext(Instant limit);
  void happen(Instant until);

  std::atomic<Instant> now_ = kStart;
  WallTime wallTimeAtStart_ = std::chrono::sys_days(std::chrono::year(2026) / 1 / 2) +
                              std::chrono::hours(3) + std::chrono::minutes(4) +
                              std::chrono::seconds(5);
  std::atomic<bool> stopping_ = false;
  bool running_ = false;
  std::atomic<std::uint64_t> lastOrder_ = 0;

  TimerQueue timers_;
  std::array<HandOverQueue<Callback>, 2> urgentPosts_;  // by Urgency
  HandOverQueue<Posted> posts_;
  std::optional<Posted> nextPost_;  // the first of `posts_`, where it has been looked at
  PolledSources sources_;
  bool sourceWasLast_ = false;
  std::multimap<Instant, Callback> outsideEvents_;
};

}  // namespace platform
