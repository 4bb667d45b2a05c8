#pragma once

#include <functional>
#include <memory>
#include <string>

namespace platform {

// The context of a queue, owned by it; the deleter is the queue's finaliser.
using QueueContext = std::unique_ptr<void, void (*)(void*)>;

// Runs blocks one at a time in the order they were submitted, on a thread of its pool. Any thread
// may use it, but not a block of its own for sync().
//
// Owned jointly by whoever holds it and by each of its pending blocks, so a queue that its creator
// lets go first drains, and then finalises its context, once, on whichever thread was last.
class SerialQueue {
 public:
  using Block = std::move_only_function<void()>;

  virtual ~SerialQueue() = default;

  virtual const std::string& label() const = 0;

  // To be set before the first block is submitted. A null context has no finaliser.
  virtual void setContext(QueueContext context) = 0;
  virtual void* context() const = 0;

  // Returns at once.
  virtual void async(Block block) = 0;

  // Returns when `block` has run, after everything submitted before it. On an idle queue it runs on
  // the calling thread itself.
  virtual void sync(Block block) = 0;

  // For a thread that may not wait. On an idle queue, runs `block` at once on the calling thread,
  // lets go of it and returns true; otherwise, also within a block of this queue, leaves it as it
  // is and returns false.
  virtual bool trySync(Block& block) = 0;
};

// Makes queues that share one small pool of threads. Work that may take long belongs to a pool of
// its own, so that it never holds up short work.
class SerialQueues {
 public:
  // Every block submitted has run when this returns.
  virtual ~SerialQueues() = default;

  // A shared pointer because the queue's holders and its pending blocks own it together.
  virtual std::shared_ptr<SerialQueue> makeQueue(std::string label) = 0;
};

}  // namespace platform
