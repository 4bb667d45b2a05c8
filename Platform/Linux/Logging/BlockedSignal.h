#pragma once

#include <csignal>

namespace platform {

// While it lives, a signal that a system call of this thread raises (SIGPIPE, SIGXFSZ) has no
// effect, whatever its action is. The call fails with its errno instead.
class BlockedSignal {
 public:
  explicit BlockedSignal(int signal) noexcept;
  BlockedSignal(const BlockedSignal&) = delete;
  BlockedSignal& operator=(const BlockedSignal&) = delete;
  ~BlockedSignal();

  // Call it after the system call has failed with the errno that belongs to the signal.
  void discard() noexcept;

 private:
  sigset_t signal_;
  sigset_t before_;
  // A signal that was pending before is not ours and stays pending.
  bool wasPending_ = false;
};

}  // namespace platform
