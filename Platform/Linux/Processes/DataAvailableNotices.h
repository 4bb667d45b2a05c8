#pragma once

#include <memory>
#include <vector>

#include "Platform/Notifications/NotificationCenter.h"
#include "Platform/Processes/Task.h"
#include "Platform/RunLoops/RunLoop.h"

namespace platform {

// Who waits to be told that his file handle has something to read. It is told while the run loop
// runs, and in the waits of tasks, which do not run it. Belongs to the loop's thread.
class DataAvailableNotices {
 public:
  // Both outlive this.
  DataAvailableNotices(RunLoop& loop, NotificationCenter& center) : loop_(loop), center_(center) {}
  DataAvailableNotices(const DataAvailableNotices&) = delete;
  DataAvailableNotices& operator=(const DataAvailableNotices&) = delete;

  NotificationCenter& center() { return center_; }

  // Posts one notice of `handle` when `descriptor` is readable; nothing new where it waits already.
  void wait(FileHandle& handle, Descriptor descriptor);
  // To be called before a handle goes.
  void forget(const FileHandle& handle);

  // Posts notices until `descriptor` is readable, which comes first where both are.
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
