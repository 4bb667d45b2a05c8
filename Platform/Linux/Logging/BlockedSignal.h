#pragma once

#include <csignal>

namespace platform {

// While it lives, a signal that a system call of this thread raises (SIGPIPE, SIGXFSZ) stays
// without effect, and the call fails with its errno instead, whatever the process does with that
// signal otherwise.
class BlockedSignal {
 public:
  explicit BlockedSignal(int signal) noexcept;
  BlockedSignal(const BlockedSignal&) = delete;
  BlockedSignal& operator=(const BlockedSignal&) = delete;
  ~BlockedSignal();

  // To be called when the system call failed with the errno that goes with the signal.
  void discard() noexcept;

 private:
  sigset_t signal_;
  sigset_t before_;
  // One that waited already is somebody else's and stays.
  bool wasPending_ = false;
};

}  // namespace platform
