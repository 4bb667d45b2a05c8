#pragma once

#include <atomic>
#include <cstddef>
#include <deque>
#include <mutex>
#include <optional>
#include <utility>

namespace platform {

// A queue that any thread fills and one thread empties. empty() takes no lock, because a loop calls
// it far more often than there are items.
template <typename T>
class HandOverQueue {
 public:
  void push(T item) {
    const std::lock_guard lock(mutex_);
    items_.push_back(std::move(item));
    size_.store(items_.size(), std::memory_order_release);
  }

  std::optional<T> pop() {
    if (empty()) return std::nullopt;
    const std::lock_guard lock(mutex_);
    std::optional<T> first(std::move(items_.front()));
    items_.pop_front();
    size_.store(items_.size(), std::memory_order_release);
    return first;
  }

  std::size_t size() const { return size_.load(std::memory_order_acquire); }
  bool empty() const { return size() == 0; }

 private:
  std::mutex mutex_;
  std::deque<T> items_;
  std::atomic<std::size_t> size_ = 0;
};

}  // namespace platform
