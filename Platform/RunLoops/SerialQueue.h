#pragma once

#include <functional>
#include <memory>
#include <string>

namespace platform {

// The context of a queue, which owns it; the deleter is the queue's finaliser.
using QueueContext = std::unique_ptr<void, void (*)(void*)>;

// Runs blocks one at a time in the order of their submission, on a thread of its pool. Any thread
// may use it, but a block must not call sync() of its own queue.
//
// All its holders and each of its pending blocks own it together. A queue whose creator drops it
// thus drains first, and then finalises its context, once, on the thread that was last.
class SerialQueue {
 public:
  using Block = std::move_only_function<void()>;

  virtual ~SerialQueue() = default;

  virtual const std::string& label() const = 0;

  // Call it before the first block is submitted. A null context has no finaliser.
  virtual void setContext(QueueContext context) = 0;
  virtual void* context() const = 0;

  // Does not block.
  virtual void async(Block block) = 0;

  // Returns after `block` has run, which comes after all blocks submitted before. On an idle queue
  // it runs on the calling thread.
  virtual void sync(Block block) = 0;

  // For a thread that must not block. On an idle queue it runs `block` at once on the calling
  // thread, drops it and returns true. Otherwise, and inside a block of this queue, it leaves
  // `block` unchanged and returns false.
  virtual bool trySync(Block& block) = 0;
};

// Makes queues that share one small pool of threads. Long work belongs into a pool of its own, so
// that it never blocks short work.
class SerialQueues {
 public:
  // Blocks until every submitted block has run.
  virtual ~SerialQueues() = default;

  // Shared, because the queue's holders and its pending blocks own it together.
  virtual std::shared_ptr<SerialQueue> makeQueue(std::string label) = 0;
};

}  // namespace platform
