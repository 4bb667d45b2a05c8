#pragma once

#include <array>
#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>

#include <asio/executor_work_guard.hpp>
#include <asio/io_context.hpp>
#include <asio/posix/stream_descriptor.hpp>
#include <asio/steady_timer.hpp>

#include "Platform/Linux/RunLoops/ReadableSources.h"
#include "Platform/RunLoops/HandOverQueue.h"
#include "Platform/RunLoops/RunLoop.h"
#include "Platform/RunLoops/TimerQueue.h"

namespace platform {

// The run loop on an io_context of Asio.
//
// Asio waits for the earliest timer, for posts and for two sets of descriptors, the urgent and the
// ordinary ones. The loop itself asks the sets which descriptors are ready: Asio could not tell
// whether an exit has happened without first running other ready handlers.
class AsioRunLoop final : public RunLoop {
 public:
  // Fails with kExhausted if the system has no descriptors left.
  static Result<std::unique_ptr<AsioRunLoop>> create();

  AsioRunLoop(const AsioRunLoop&) = delete;
  AsioRunLoop& operator=(const AsioRunLoop&) = delete;
  ~AsioRunLoop() override;

  Instant now() const override;
  WallTime wallTime() const override;
  std::unique_ptr<RunLoopHandle> startTimer(Duration delay, Repeat repeat,
                                            Callback callback) override;
  void post(Callback callback, Urgency urgency = Urgency::kOrdinary) override;
  Result<std::unique_ptr<RunLoopHandle>> watchReadable(Descriptor descriptor, Urgency urgency,
                                                       Callback callback) override;
  void run() override;
  void stop() override;
  void sleepFor(Duration duration) override;

  // For other code that waits with Asio on this loop. Its handlers may only call post(), because
  // only the loop's own calls keep the order of urgencies.
  asio::io_context& context() { return io_; }

 private:
  // Throws what the constructors of Asio throw.
  AsioRunLoop(EpollSet urgent, EpollSet ordinary);

  // Delivers what has happened by now and is more urgent than this.
  void deliverMoreUrgent(Urgency urgency);
  std::size_t countUrgent(Urgency urgency) const;
  bool callUrgent(Urgency urgency);
  void wake();
  void wakeIfPending();
  void servePosts();
  void serveTimers();
  void serveSources();
  void awaitUrgent();
  void awaitSources();
  void awaitTimer();

  asio::io_context io_{1};
  asio::executor_work_guard<asio::io_context::executor_type> work_{io_.get_executor()};
  std::atomic<bool> stopping_ = false;
  bool running_ = false;

  std::array<HandOverQueue<Callback>, 4> posts_;  // by Urgency
  std::atomic<bool> awake_ = false;               // servePosts() is scheduled

  ReadableSources urgent_;
  ReadableSources ordinary_;
  asio::posix::stream_descriptor urgentReady_;
  asio::posix::stream_descriptor ordinaryReady_;

  TimerQueue timers_;
  std::uint64_t lastTimer_ = 0;
  asio::steady_timer alarm_;
  std::optional<Instant> alarmAt_;
};

}  // namespace platform
