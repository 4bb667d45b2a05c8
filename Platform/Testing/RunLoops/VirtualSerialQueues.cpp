#include "Platform/Testing/RunLoops/VirtualSerialQueues.h"

#include <cstdlib>
#include <deque>
#include <utility>

namespace platform {

// The order in which the queues run blocks.
class VirtualSerialQueues::Pool : public std::enable_shared_from_this<Pool> {
 public:
  explicit Pool(VirtualRunLoop& loop) : loop_(&loop) {}

  void submitted(std::shared_ptr<Queue> queue);
  void runPending();
  void close();

 private:
  void runOne();

  VirtualRunLoop* loop_;
  // One entry for each pending block. For blocks that sync() has run early, entries of empty queues
  // remain.
  std::deque<std::shared_ptr<Queue>> turns_;
};

class VirtualSerialQueues::Queue final : public SerialQueue,
                                         public std::enable_shared_from_this<Queue> {
 public:
  Queue(std::shared_ptr<Pool> pool, std::string label)
      : pool_(std::move(pool)), label_(std::move(label)) {}

  const std::string& label() const override { return label_; }
  void setContext(QueueContext context) override { context_ = std::move(context); }
  void* context() const override { return context_.get(); }

  void async(Block block) override {
    blocks_.push_back(std::move(block));
    pool_->submitted(shared_from_this());
  }

  void sync(Block block) override {
    const auto self = shared_from_this();  // The block may drop the caller's reference.
    // A block that submits to its own queue and waits would deadlock.
    if (running_) std::abort();
    while (!blocks_.empty()) runOne();
    run(std::move(block));
  }

  bool trySync(Block& block) override {
    if (running_ || !blocks_.empty()) return false;
    const auto self = shared_from_this();  // The block may drop the caller's reference.
    run(std::exchange(block, nullptr));
    return true;
  }

  // If a block of this queue runs already, the turn is postponed until it is done.
  void runOne() {
    if (running_) {
      ++missedTurns_;
      return;
    }
    if (blocks_.empty()) return;
    Block block = std::move(blocks_.front());
    blocks_.pop_front();
    run(std::move(block));
  }

 private:
  void run(Block block) {
    running_ = true;
    block();
    block = nullptr;
    running_ = false;
    while (missedTurns_ > 0) {
      --missedTurns_;
      pool_->submitted(shared_from_this());
    }
  }

  const std::shared_ptr<Pool> pool_;  // Shared with the other queues and with VirtualSerialQueues.
  const std::string label_;
  QueueContext context_{nullptr, [](void*) {}};
  std::deque<Block> blocks_;
  bool running_ = false;
  std::size_t missedTurns_ = 0;
};

void VirtualSerialQueues::Pool::submitted(std::shared_ptr<Queue> queue) {
  turns_.push_back(std::move(queue));
  if (loop_ == nullptr) {
    runPending();
    return;
  }
  loop_->scheduleOutsideEvent(Duration::zero(), [pool = shared_from_this()] { pool->runOne(); });
}

void VirtualSerialQueues::Pool::runOne() {
  if (turns_.empty()) return;
  const std::shared_ptr<Queue> queue = std::move(turns_.front());
  turns_.pop_front();
  queue->runOne();
}

void VirtualSerialQueues::Pool::runPending() {
  while (!turns_.empty()) runOne();
}

void VirtualSerialQueues::Pool::close() {
  runPending();
  loop_ = nullptr;
}

VirtualSerialQueues::VirtualSerialQueues(VirtualRunLoop& loop)
    : pool_(std::make_shared<Pool>(loop)) {}

VirtualSerialQueues::~VirtualSerialQueues() { pool_->close(); }

std::shared_ptr<SerialQueue> VirtualSerialQueues::makeQueue(std::string label) {
  return std::make_shared<Queue>(pool_, std::move(label));
}

void VirtualSerialQueues::runPending() { pool_->runPending(); }

}  // namespace platform
