#pragma once

#include <memory>
#include <vector>

#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Processes/Task.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// File handles that wait for a notice that data is available. Notices are posted while the run loop
// runs, and while a task waits without running it. Belongs to the loop's thread.
class DataAvailableNotices {
 public:
  // Both outlive this.
  DataAvailableNotices(RunLoop& loop, NotificationCenter& center) : loop_(loop), center_(center) {}
  DataAvailableNotices(const DataAvailableNotices&) = delete;
  DataAvailableNotices& operator=(const DataAvailableNotices&) = delete;

  NotificationCenter& center() { return center_; }

  // Posts one notice for `handle` when `descriptor` is readable. Does nothing if the handle waits
  // already.
  void wait(FileHandle& handle, Descriptor descriptor);
  // Call it before the handle is destroyed.
  void forget(const FileHandle& handle);

  // Posts notices until `descriptor` is readable, which is checked first.
  void postUntilReadable(Descriptor descriptor);

 private:
  struct Waiting {
    FileHandle* handle;
    Descriptor descriptor;
    std::unique_ptr<RunLoopHandle> source;
  };

  void post(FileHandle* handle);

  RunLoop& loop_;
  NotificationCenter& center_;
  std::vector<Waiting> waiting_;  // in the order of wait()
};

}  // namespace platform
