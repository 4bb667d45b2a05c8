#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Platform/RunLoops/SerialQueue.h"
#include "Platform/Testing/RunLoops/VirtualRunLoop.h"

namespace platform {

// Serial queues without threads: a submitted block runs as an outside event of the virtual loop,
// before the loop's next own callback and also while the loop's thread sleeps, but never inside
// async(). Belongs to one thread. As in the real ones, the destructor runs pending blocks.
class VirtualSerialQueues final : public SerialQueues {
 public:
  explicit VirtualSerialQueues(VirtualRunLoop& loop);
  VirtualSerialQueues(const VirtualSerialQueues&) = delete;
  VirtualSerialQueues& operator=(const VirtualSerialQueues&) = delete;
  ~VirtualSerialQueues() override;

  std::shared_ptr<SerialQueue> makeQueue(std::string label) override;

  // Runs all pending blocks of all queues in the order of their submission.
  void runPending();

 private:
  class Pool;
  class Queue;

  // Shared with the queues and the loop's events, which may outlive this.
  std::shared_ptr<Pool> pool_;
};

}  // namespace platform
