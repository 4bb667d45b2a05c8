#pragma once

#include <memory>
#include <thread>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Tools/servicemanagerctl/WaitProgress.h"

// Reports a wait on standard error for as long as it lives. It has a thread and a loop of its own,
// since a call to the service manager blocks the main thread.
class BlockedCallProgress {
 public:
  explicit BlockedCallProgress(WaitProgress::Wait wait);
  BlockedCallProgress(const BlockedCallProgress&) = delete;
  BlockedCallProgress& operator=(const BlockedCallProgress&) = delete;
  ~BlockedCallProgress();

 private:
  std::unique_ptr<platform::AsioRunLoop> loop_;  // null if the system has no resources for one
  std::thread thread_;
};
