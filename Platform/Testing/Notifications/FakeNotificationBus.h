#pragma once

#include <atomic>
#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Logging/SystemLog.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/DistributedObservers.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// A bus between centres that stand for different programs, on one run loop. It must not outlive the
// loop.
class FakeNotificationBus {
 public:
  // A program logs in when it adds an observer, or in the first turn of the loop after its centre
  // was made. If that takes longer than this, the bus has closed its connection; then it connects
  // again, after kRetryTime.
  static constexpr Duration kLogInTime = std::chrono::seconds(30);
  static constexpr Duration kRetryTime = std::chrono::milliseconds(500);

  explicit FakeNotificationBus(RunLoop& loop) : loop_(loop) {}
  ~FakeNotificationBus();

  // The centre logs failed posts to `log`, as the real one does.
  std::unique_ptr<DistributedNotificationCenter> makeCenter(SystemLog& log);

  // Posts to a stopped bus wait for start(), which is reported as the bus's return.
  void stop() { running_ = false; }
  void start();

 private:
  class Center;

  void deliver(DistributedNotification notification);

  RunLoop& loop_;
  std::atomic<bool> running_ = true;
  std::vector<DistributedNotification> waiting_;  // posted while it was stopped
  DistributedObservers observers_;
  ReturnObservers returnObservers_;
};

}  // namespace platform
