#pragma once

#include "Platform/Values/KernelIds.h"

namespace platform {

// Holds one thread of another program, which otherwise goes on.
class HeldThread {
 public:
  // `thread` is the number of the process for its main thread.
  explicit HeldThread(ProcessId thread);
  HeldThread(const HeldThread&) = delete;
  HeldThread& operator=(const HeldThread&) = delete;
  ~HeldThread();

  // False if this machine does not let this user hold it.
  bool isHeld() const { return isHeld_; }

 private:
  const int thread_;
  bool isHeld_ = false;
};

}  // namespace platform
