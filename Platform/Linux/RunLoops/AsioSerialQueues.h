#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Platform/RunLoops/SerialQueue.h"

namespace platform {

// Serial queues on a thread pool of Asio.
//
// The queues take turns: after kBlocksPerTurn blocks a queue that still has some lets the waiting
// queues run and continues after them. Long work that shall not block other queues therefore is to
// be submitted in many blocks, each of which submits the next.
//
// A queue may outlive this. As soon as the destructor starts, blocks run on the threads that submit
// them, still one at a time and in order, but without turns: blocks that submit the next ones
// without end keep the destructor from returning. Do not destroy it on a thread of the pool.
class AsioSerialQueues final : public SerialQueues {
 public:
  static constexpr std::size_t kBlocksPerTurn = 64;

  // The scheduling of the threads.
  enum class Work {
    kNormal,      // runs as early as this process's other threads
    kBackground,  // never preempts the thread that submits it, as for writing a log
  };

  // At least one thread. Threads for kBackground run under SCHED_BATCH (see sched(7)) if their
  // maker runs under SCHED_OTHER, so that waking them never preempts a running thread.
  explicit AsioSerialQueues(std::size_t threads, Work work = Work::kNormal);
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
