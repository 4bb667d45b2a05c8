#include "Platform/RunLoops/TimerQueue.h"

#include <algorithm>
#include <cassert>
#include <utility>

namespace platform {

namespace {

constexpr std::size_t kChildren = 4;
constexpr std::size_t kNotWaiting = SIZE_MAX;

}  // namespace

class TimerQueue::Timer final : public RunLoopHandle {
 public:
  Timer(TimerQueue& queue, Duration period, Callback callback)
      : queue_(queue), period_(period), callback_(std::move(callback)) {}
  Timer(const Timer&) = delete;
  Timer& operator=(const Timer&) = delete;

  ~Timer() override {
    if (position_ != kNotWaiting) queue_.remove(position_);
    if (destroyed_ != nullptr) *destroyed_ = true;
  }

  Duration period() const { return period_; }
  std::size_t position() const { return position_; }
  void setPosition(std::size_t position) { position_ = position; }

  void run() {
    // If a callback runs the loop itself, the timer is not called recursively. The period counts as
    // missed.
    if (destroyed_ != nullptr) return;
    Callback callback = std::move(callback_);  // It may destroy this timer while it runs.
    bool destroyed = false;
    destroyed_ = &destroyed;
    callback();
    if (destroyed) return;
    destroyed_ = nullptr;
    if (period_ > Duration::zero()) callback_ = std::move(callback);
  }

 private:
  TimerQueue& queue_;
  const Duration period_;
  Callback callback_;
  std::size_t position_ = kNotWaiting;
  bool* destroyed_ = nullptr;  // Non-null while the callback runs; the destructor sets it.
};

std::unique_ptr<RunLoopHandle> TimerQueue::add(Key key, Duration period, Callback callback) {
  auto timer = std::make_unique<Timer>(*this, period, std::move(callback));
  heap_.emplace_back();
  siftUp(heap_.size() - 1, {key, timer.get()});
  return timer;
}

void TimerQueue::fireEarliest(Instant now) {
  assert(!heap_.empty());
  auto [key, timer] = heap_.front();
  if (const Duration period = timer->period(); period > Duration::zero()) {
    // Computed before the call, so that a period that ends during it is missed, not lost.
    const auto missed = std::max(now - key.due, Duration::zero()) / period;
    key.due = instantAfter(key.due, (missed + 1) * period);
    siftDown(0, {key, timer});
  } else {
    remove(0);
    timer->setPosition(kNotWaiting);
  }
  timer->run();
}

void TimerQueue::place(std::size_t position, const Entry& entry) {
  heap_[position] = entry;
  entry.timer->setPosition(position);
}

void TimerQueue::siftUp(std::size_t position, const Entry& entry) {
  while (position > 0) {
    const std::size_t parent = (position - 1) / kChildren;
    if (heap_[parent].key <= entry.key) break;
    place(position, heap_[parent]);
    position = parent;
  }
  place(position, entry);
}

void TimerQueue::siftDown(std::size_t position, const Entry& entry) {
  for (;;) {
    const std::size_t first = position * kChildren + 1;
    if (first >= heap_.size()) break;
    const std::size_t end = std::min(first + kChildren, heap_.size());
    std::size_t least = first;
    for (std::size_t child = first + 1; child < end; ++child) {
      if (heap_[child].key < heap_[least].key) least = child;
    }
    if (entry.key <= heap_[least].key) break;
    place(position, heap_[least]);
    position = least;
  }
  place(position, entry);
}

void TimerQueue::remove(std::size_t position) {
  const Entry last = heap_.back();
  heap_.pop_back();
  if (position == heap_.size()) return;
  // The last entry may belong above or below the gap that it fills.
  if (position > 0 && last.key < heap_[(position - 1) / kChildren].key) {
    siftUp(position, last);
  } else {
    siftDown(position, last);
  }
}

Instant instantAfter(Instant now, Duration delay) {
  if (delay <= Duration::zero()) return now;
  return Instant::max() - now < delay ? Instant::max() : now + delay;
}

}  // namespace platform
