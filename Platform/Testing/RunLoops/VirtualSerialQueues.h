#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Platform/RunLoops/SerialQueue.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {

// Serial queues without threads: a submitted block runs as an outside event of the virtual loop,
// before the loop's next own callback and also while the loop's thread sleeps, never inside
// async(). Belongs to one thread. What is pending when this is destroyed runs then, as on the real
// ones.
class VirtualSerialQueues final : public SerialQueues {
 public:
  explicit VirtualSerialQueues(VirtualRunLoop& loop);
  VirtualSerialQueues(const VirtualSerialQueues&) = delete;
  VirtualSerialQueues& operator=(const VirtualSerialQueues&) = delete;
  ~VirtualSerialQueues() override;

  std::shared_ptr<SerialQueue> makeQueue(std::string label) override;

  // Runs all that is pending, in the order in which it was submitted to whichever queue.
  void runPending();

 private:
  class Pool;
  class Queue;

  // Shared with the queues and the loop's events, which may outlive this.
  std::shared_ptr<Pool> pool_;
};

}  // namespace platform
