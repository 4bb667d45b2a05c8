#include "Platform/Linux/RunLoops/AsioSerialQueues.h"

#include <cassert>
#include <cstdlib>
#include <deque>
#include <future>
#include <mutex>
#include <optional>
#include <thread>
#include <utility>

#include <asio/post.hpp>
#include <asio/thread_pool.hpp>
#include <sched.h>

namespace platform {
namespace {

// While it lives, threads that this thread makes run under SCHED_BATCH. It does nothing if the
// thread has another policy than SCHED_OTHER, because somebody chose it.
class BatchThreadScope {
 public:
  BatchThreadScope() {
    const sched_param none{};
    isUsual_ = ::sched_getscheduler(0) == SCHED_OTHER;
    if (isUsual_) ::sched_setscheduler(0, SCHED_BATCH, &none);
  }
  BatchThreadScope(const BatchThreadScope&) = delete;
  BatchThreadScope& operator=(const BatchThreadScope&) = delete;
  ~BatchThreadScope() {
    const sched_param none{};
    if (isUsual_) ::sched_setscheduler(0, SCHED_OTHER, &none);
  }

 private:
  bool isUsual_ = false;
};

}  // namespace

class AsioSerialQueues::Pool {
 public:
  explicit Pool(std::size_t threads) : threads_(threads) {}

  // Whether `work` will run on one of the threads. It does not once the pool shuts down.
  template <typename Work>
  bool post(Work work) {
    const std::lock_guard lock(mutex_);
    if (closed_) return false;
    asio::post(threads_, std::move(work));
    return true;
  }

  bool isCurrentThreadOurs() { return threads_.get_executor().running_in_this_thread(); }

  void close() {
    {
      const std::lock_guard lock(mutex_);
      closed_ = true;
    }
    threads_.join();  // Returns when all posted work has run.
  }

 private:
  std::mutex mutex_;
  bool closed_ = false;
  asio::thread_pool threads_;
};

// At any moment at most one thread (`runner_`) runs the queue's blocks. While blocks wait and no
// thread runs them, a turn on the pool is scheduled (`scheduled_`).
class AsioSerialQueues::Queue final : public SerialQueue,
                                      public std::enable_shared_from_this<Queue> {
 public:
  Queue(std::shared_ptr<Pool> pool, std::string label)
      : pool_(std::move(pool)), label_(std::move(label)) {}

  const std::string& label() const override { return label_; }
  void setContext(QueueContext context) override { context_ = std::move(context); }
  void* context() const override { return context_.get(); }

  void async(Block block) override {
    std::unique_lock lock(mutex_);
    blocks_.push_back(std::move(block));
    schedule(lock);
  }

  void sync(Block block) override {
    const auto self = shared_from_this();  // The block may drop the caller's reference.
    std::unique_lock lock(mutex_);
    // A block that submits to its own queue and waits would deadlock.
    if (runner_ == std::this_thread::get_id()) std::abort();
    if (isIdle()) return runHere(block, lock);
    std::promise<void> done;
    blocks_.push_back([&] {
      block();
      done.set_value();
    });
    // If all threads of the pool wait like this one, none would ever run the blocks before ours.
    if (runner_ == std::thread::id() && pool_->isCurrentThreadOurs()) run(blocks_.size(), lock);
    schedule(lock);
    if (lock.owns_lock()) lock.unlock();
    done.get_future().wait();
  }

  bool trySync(Block& block) override {
    const auto self = shared_from_this();  // The block may drop the caller's reference.
    std::unique_lock lock(mutex_);
    if (!isIdle()) return false;
    runHere(block, lock);
    if (lock.owns_lock()) lock.unlock();
    block = nullptr;
    return true;
  }

 private:
  bool isIdle() const { return runner_ == std::thread::id() && blocks_.empty(); }

  // Runs a block of an idle queue on this thread. May release the lock.
  void runHere(Block& block, std::unique_lock<std::mutex>& lock) {
    runner_ = std::this_thread::get_id();
    lock.unlock();
    block();
    lock.lock();
    runner_ = {};
    schedule(lock);
  }

  // Ensures that waiting blocks will run. May release the lock.
  void schedule(std::unique_lock<std::mutex>& lock) {
    while (!blocks_.empty() && runner_ == std::thread::id() && !scheduled_) {
      scheduled_ = true;
      // The turn keeps the queue alive; there may be no other reference.
      if (pool_->post([self = shared_from_this()] { self->turn(); })) return;
      scheduled_ = false;
      run(kBlocksPerTurn, lock);
    }
  }

  void turn() {
    std::unique_lock lock(mutex_);
    scheduled_ = false;
    // The runner checks for waiting blocks when it is done.
    if (runner_ != std::thread::id()) return;
    run(kBlocksPerTurn, lock);
    schedule(lock);
  }

  // Runs the next `count` blocks, or as many as there are.
  void run(std::size_t count, std::unique_lock<std::mutex>& lock) {
    runner_ = std::this_thread::get_id();
    for (; count > 0 && !blocks_.empty(); --count) {
      Block block = std::move(blocks_.front());
      blocks_.pop_front();
      lock.unlock();
      block();
      block = nullptr;
      lock.lock();
    }
    runner_ = {};
  }

  const std::shared_ptr<Pool> pool_;  // Shared with the other queues and with AsioSerialQueues.
  const std::string label_;
  QueueContext context_{nullptr, [](void*) {}};

  std::mutex mutex_;
  std::deque<Block> blocks_;
  std::thread::id runner_;
  bool scheduled_ = false;
};

AsioSerialQueues::AsioSerialQueues(std::size_t threads, Work work) {
  assert(threads > 0);
  std::optional<BatchThreadScope> batch;
  if (work == Work::kBackground) batch.emplace();
  pool_ = std::make_shared<Pool>(threads);
}

AsioSerialQueues::~AsioSerialQueues() { pool_->close(); }

std::shared_ptr<SerialQueue> AsioSerialQueues::makeQueue(std::string label) {
  return std::make_shared<Queue>(pool_, std::move(label));
}

}  // namespace platform
