#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Platform/SerialQueue.h"

namespace platform {

// Serial queues on a thread pool of Asio.
//
// A queue may outlive this: from the moment this is being destroyed its blocks run on the threads
// that submit them, still one at a time and in order. Not to be destroyed on a thread of the pool.
class AsioSerialQueues final : public SerialQueues {
 public:
  // At least one thread.
  explicit AsioSerialQueues(std::size_t threads);
  AsioSerialQueues(const AsioSerialQueues&) = delete;
  AsioSerialQueues& operator=(const AsioSerialQueues&) = delete;
  ~AsioSerialQueues() override;

  std::shared_ptr<SerialQueue> makeQueue(std::string label) override;

 private:
  class Pool;
  class Queue;

  // Shared with the queues, which may outlive this.
  std::shared_ptr<Pool> pool_;
};

}  // namespace platform
