#pragma once

#include <cstddef>
#include <memory>
#include <string>

#include "Platform/RunLoops/SerialQueue.h"

namespace platform {

// Serial queues on a thread pool of Asio.
//
// They take turns: a queue that never runs out of blocks, as one whose blocks submit the next ones,
// leaves its thread to the queues that wait after kBlocksPerTurn of them, and goes on behind those.
// Who wants others to be served during long work therefore submits it block by block.
//
// A queue may outlive this: from the moment this is being destroyed its blocks run on the threads
// that submit them, still one at a time and in order, and without turns: blocks that submit the
// next ones without an end keep this from ending. Not to be destroyed on a thread of the pool.
class AsioSerialQueues final : public SerialQueues {
 public:
  static constexpr std::size_t kBlocksPerTurn = 64;

  // What the threads' work is to those who submit it.
  enum class Work {
    kAwaited,       // done as soon as the threads of this process do theirs
    kBehindOthers,  // never at the price of the thread that submits it, as the writing of a log
  };

  // At least one thread. Threads of what is done behind others run under SCHED_BATCH (see sched(7))
  // where their maker runs under SCHED_OTHER: waking them never takes the processor away.
  explicit AsioSerialQueues(std::size_t threads, Work work = Work::kAwaited);
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
