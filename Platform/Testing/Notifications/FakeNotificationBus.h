#pragma once

#include <atomic>
#include <memory>
#include <string>
#include <vector>

#include "Platform/Logging/SystemLog.h"
#include "Platform/Notifications/DistributedNotificationCenter.h"
#include "Platform/Notifications/DistributedObservers.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// A bus between centres that stand for different programs, on one run loop, which it must not
// outlive.
class FakeNotificationBus {
 public:
  explicit FakeNotificationBus(RunLoop& loop) : loop_(loop) {}
  ~FakeNotificationBus();

  // What can't be posted is logged there, as the real centre does.
  std::unique_ptr<DistributedNotificationCenter> makeCenter(SystemLog& log);

  // What is posted while it is stopped is lost. Its return is told once it has been stopped.
  void stop() { running_ = false; }
  void start();

 private:
  class Center;

  RunLoop& loop_;
  std::atomic<bool> running_ = true;
  DistributedObservers observers_;
  ReturnObservers returnObservers_;
};

}  // namespace platform
