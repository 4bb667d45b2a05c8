#pragma once

#include <memory>
#include <thread>

#include "Platform/Linux/RunLoops/AsioRunLoop.h"
#include "Tools/servicemanagerctl/WaitProgress.h"

// Tells on standard error of a wait, for as long as it lives. On a thread and a loop of its own: a
// call to the service manager blocks the main one.
class BlockedCallProgress {
 public:
  explicit BlockedCallProgress(WaitProgress::Wait wait);
  BlockedCallProgress(const BlockedCallProgress&) = delete;
  BlockedCallProgress& operator=(const BlockedCallProgress&) = delete;
  ~BlockedCallProgress();

 private:
  std::unique_ptr<platform::AsioRunLoop> loop_;  // null where the system has no room for one
  std::thread thread_;
};
